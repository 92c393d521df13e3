// A recorder in the engine, as a host drives it: prepare, start, stop,
// release; its own end reported through onAbort; segments as events; streamed
// audio as an async iterator per item.

import { EventEmitter } from 'node:events';
import { endianness } from 'node:os';

import type { EngineExit, OrvaneClient } from './client.js';
import { errorFromPayload, OrvaneClientError } from './errors.js';
import type { AudioBufferData, RecorderSchema, RecordingResult, SchemaItem } from './schema.js';

export type AbortReasonKind = 'interrupted' | 'failed' | 'userStopped';

/** A recording that ended on its own. `stop` afterwards answers with the same result. */
export interface RecorderAbort {
  reason: AbortReasonKind;
  result?: RecordingResult;
  /** `OrvaneError`, or `PlatformError` for a group of failures; absent for "userStopped". */
  error?: OrvaneClientError;
}

export interface RecorderOptions {
  /** Called once if the recording ends on its own (a source fails or goes away). */
  onAbort?: (abort: RecorderAbort) => void;
}

export interface SegmentEvent {
  /** The schema item the segment belongs to. */
  itemIndex: number;
  /** The segment file's path. */
  path: string;
}

/** One buffer of streamed audio, decoded. */
export interface AudioBuffer {
  sampleRate: number;
  numberOfChannels: number;
  numberOfFrames: number;
  /** One array per channel, `numberOfFrames` samples each. */
  channels: Float32Array[];
}

export interface RecorderEvents {
  segment: [SegmentEvent];
  abort: [RecorderAbort];
}

const littleEndianHost = endianness() === 'LE';

/** The floats of one channel: base64 of little-endian float32 samples. */
export function decodeChannel(base64: string): Float32Array {
  const bytes = Buffer.from(base64, 'base64');
  if (bytes.length % 4 !== 0) throw new OrvaneClientError(`a channel of ${bytes.length} bytes is not float32 samples`);
  const samples = new Float32Array(bytes.length / 4);
  // Copied, not viewed: a decoded Buffer need not be aligned to 4 bytes.
  if (littleEndianHost) new Uint8Array(samples.buffer).set(bytes);
  else for (let i = 0; i < samples.length; i++) samples[i] = bytes.readFloatLE(i * 4);
  return samples;
}

export function decodeAudioBuffer(data: AudioBufferData): AudioBuffer {
  const channels = data.channelData.map(decodeChannel);
  for (const channel of channels)
    if (channel.length !== data.numberOfFrames)
      throw new OrvaneClientError(`a channel holds ${channel.length} samples, the buffer says ${data.numberOfFrames}`);
  return {
    sampleRate: data.sampleRate,
    numberOfChannels: data.numberOfChannels,
    numberOfFrames: data.numberOfFrames,
    channels,
  };
}

/** A queue read by one async iterator; ends normally or with an error once the queue is drained. */
class AudioQueue implements AsyncIterableIterator<AudioBuffer> {
  private readonly buffers: AudioBuffer[] = [];
  private readonly waiters: Array<{ resolve: (r: IteratorResult<AudioBuffer>) => void; reject: (e: unknown) => void }> = [];
  private ended = false;
  private failure: unknown;
  taken = false;

  push(buffer: AudioBuffer): void {
    if (this.ended) return;
    const waiter = this.waiters.shift();
    if (waiter) waiter.resolve({ value: buffer, done: false });
    else this.buffers.push(buffer);
  }

  end(failure?: unknown): void {
    if (this.ended) return;
    this.ended = true;
    this.failure = failure;
    for (const waiter of this.waiters.splice(0)) {
      if (failure !== undefined) waiter.reject(failure);
      else waiter.resolve({ value: undefined, done: true });
    }
  }

  next(): Promise<IteratorResult<AudioBuffer>> {
    const buffer = this.buffers.shift();
    if (buffer) return Promise.resolve({ value: buffer, done: false });
    if (this.ended) {
      if (this.failure !== undefined) {
        const failure = this.failure;
        this.failure = undefined;
        return Promise.reject(failure);
      }
      return Promise.resolve({ value: undefined, done: true });
    }
    return new Promise((resolve, reject) => this.waiters.push({ resolve, reject }));
  }

  // A reader that leaves early drops what is queued and what comes later.
  return(): Promise<IteratorResult<AudioBuffer>> {
    this.buffers.length = 0;
    this.end();
    return Promise.resolve({ value: undefined, done: true });
  }

  [Symbol.asyncIterator](): AsyncIterableIterator<AudioBuffer> {
    return this;
  }
}

function outputOf(item: SchemaItem): string | undefined {
  return 'output' in item ? item.output : undefined;
}

export class Recorder extends EventEmitter<RecorderEvents> {
  /** The engine's identifier of this recorder. */
  readonly target: string;
  /** The schema as sent, callback identifiers included. */
  readonly schema: RecorderSchema;
  private readonly client: OrvaneClient;
  private readonly disposers: Array<() => void> = [];
  private readonly streams = new Map<number, AudioQueue>();
  private abortInfo: RecorderAbort | undefined;
  private released = false;

  static async create(client: OrvaneClient, schema: RecorderSchema, options: RecorderOptions): Promise<Recorder> {
    const recorder = new Recorder(client, schema);
    const abortTarget = recorder.listen('abort', (params) => recorder.handleAbort(params, options));
    try {
      await client.request({
        procedure: 'init',
        type: 'Recorder',
        target: recorder.target,
        params: { schema: recorder.schema, onAbortInstance: abortTarget },
      });
    } catch (error) {
      recorder.dispose();
      throw error;
    }
    return recorder;
  }

  private constructor(client: OrvaneClient, schema: RecorderSchema) {
    super();
    this.client = client;
    this.target = client.newIdentifier('recorder');
    const items = schema.items.map((item, index) => this.wireItem(item, index));
    this.schema = { ...schema, items };
    const onExit = (exit: EngineExit) => this.endStreams(exit.error);
    client.on('exit', onExit);
    this.disposers.push(() => client.off('exit', onExit));
  }

  /** The item with the callback identifiers its output needs, and their handlers registered. */
  private wireItem(item: SchemaItem, index: number): SchemaItem {
    const output = outputOf(item);
    if (output === 'segmented') {
      const segmented = item as SchemaItem & { segmentCallback?: string };
      const target = this.listen('segment', (params) => this.handleSegment(index, params), segmented.segmentCallback);
      return { ...item, segmentCallback: target } as SchemaItem;
    }
    if (output === 'stream') {
      const streamed = item as SchemaItem & { streamCallback?: string };
      const queue = new AudioQueue();
      this.streams.set(index, queue);
      const target = this.listen('audio', (params) => queue.push(decodeAudioBuffer(params as AudioBufferData)), streamed.streamCallback);
      return { ...item, streamCallback: target } as SchemaItem;
    }
    return item;
  }

  private listen(prefix: string, handler: (params: unknown) => void, target?: string): string {
    const id = target ?? this.client.newIdentifier(prefix);
    this.disposers.push(this.client.onCallback(id, handler));
    return id;
  }

  private handleSegment(itemIndex: number, params: unknown): void {
    const encoded = (params as { path?: unknown } | undefined)?.path;
    if (typeof encoded !== 'string') return;
    this.emit('segment', { itemIndex, path: decodeURIComponent(encoded) });
  }

  private handleAbort(params: unknown, options: RecorderOptions): void {
    const p = (params ?? {}) as { reason?: AbortReasonKind; result?: RecordingResult; error?: unknown };
    const abort: RecorderAbort = { reason: p.reason ?? 'failed' };
    if (p.result) abort.result = p.result;
    if (p.error !== undefined) abort.error = errorFromPayload(p.error);
    this.abortInfo = abort;
    // Buffers stop with the recording; what came before stays readable.
    this.endStreams();
    options.onAbort?.(abort);
    this.emit('abort', abort);
  }

  /** Set once the recording ended on its own. */
  get abort(): RecorderAbort | undefined {
    return this.abortInfo;
  }

  /** Creates the bundle folder and starts every source; nothing is recorded before `start`. */
  async prepare(): Promise<void> {
    await this.perform('prepare');
  }

  /** Starts recording (preparing first when `prepare` was not called). */
  async start(): Promise<void> {
    await this.perform('start');
  }

  /** Finishes every source and resolves with the bundle. Streams end once it answers. */
  async stop(): Promise<RecordingResult> {
    try {
      return (await this.perform('stop')) as RecordingResult;
    } finally {
      // Every buffer was sent before the answer, so the streams are complete.
      this.endStreams();
    }
  }

  /**
   * Drops the recorder in the engine and this object's callbacks. Resolves
   * without a word when the engine has already ended: nothing is left to drop.
   */
  async release(): Promise<void> {
    if (this.released) return;
    this.released = true;
    try {
      if (!this.client.exit) await this.client.request({ procedure: 'release', target: this.target });
    } finally {
      this.dispose();
    }
  }

  /**
   * The audio of the schema's item `itemIndex` (whose output is "stream"), from
   * the first buffer on: buffers are kept until read. Ends after `stop`, an
   * abort or `release`; throws if the engine ends first. One reader per item.
   */
  audio(itemIndex: number): AsyncIterableIterator<AudioBuffer> {
    const queue = this.streams.get(itemIndex);
    if (!queue) throw new OrvaneClientError(`item ${itemIndex} of the schema is not a stream`);
    if (queue.taken) throw new OrvaneClientError(`the audio of item ${itemIndex} has a reader already`);
    queue.taken = true;
    return queue;
  }

  private perform(action: string): Promise<unknown> {
    return this.client.request({ procedure: 'perform', target: this.target, action });
  }

  private endStreams(failure?: unknown): void {
    for (const queue of this.streams.values()) queue.end(failure);
  }

  private dispose(): void {
    this.endStreams();
    for (const dispose of this.disposers.splice(0)) dispose();
  }
}
