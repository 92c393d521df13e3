// The connection to one orvane-rpc process: it starts the engine, writes one
// request per line, settles each request's promise from the response with its
// id, routes callbacks (messages without an id) to whoever registered their
// target, and turns the engine's end into one event and rejected calls.

import { spawn, type ChildProcessWithoutNullStreams } from 'node:child_process';
import { EventEmitter } from 'node:events';
import { accessSync, constants as fsConstants } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import { EngineExitedError, errorFromPayload, OrvaneClientError } from './errors.js';
import { Recorder, type RecorderOptions } from './recorder.js';
import type {
  AppleDevice,
  AudioVideoDevice,
  Display,
  RecorderSchema,
  RunningApplication,
  Window,
} from './schema.js';

export interface OrvaneClientOptions {
  /**
   * The engine's executable. Absent: `$ORVANE_RPC_PATH`, else the `orvane-rpc`
   * built beside this package (`<repository>/build/orvane-rpc`, or
   * `$ORVANE_BUILD_DIR`), else `orvane-rpc` on the PATH.
   */
  executablePath?: string;
  /** Extra command-line arguments for the engine. */
  args?: string[];
  /** The engine's environment. @defaultValue process.env */
  env?: NodeJS.ProcessEnv;
  cwd?: string;
  /** Receives the engine's standard error, one line at a time (it is never read as protocol). */
  onStderr?: (line: string) => void;
}

/** A request's fields besides `hvrpc` and `id`. */
export interface HVRPCRequest {
  procedure: 'init' | 'perform' | 'release' | 'manual-release' | (string & {});
  type?: string;
  target?: string;
  action?: string;
  params?: unknown;
}

export type CallbackHandler = (params: unknown) => void;

/** What the `exit` event tells, once, when the engine has ended. */
export interface EngineExit {
  code: number | null;
  signal: NodeJS.Signals | null;
  /** True when `close()` ended it. */
  expected: boolean;
  /** The error pending calls were rejected with. */
  error: EngineExitedError;
}

export interface OrvaneClientEvents {
  exit: [EngineExit];
  stderr: [string];
  /** A callback arrived for a target nobody registered. */
  unhandledCallback: [string, unknown];
  /** A callback handler threw. */
  handlerError: [unknown, string];
  /** The engine wrote a line that is not a protocol message, or a response nobody waits for. */
  protocolError: [OrvaneClientError, string];
}

interface Pending {
  resolve: (value: unknown) => void;
  reject: (error: unknown) => void;
  description: string;
}

const STDERR_TAIL_LINES = 20;

/** The engine this package starts when no path is given (see `OrvaneClientOptions.executablePath`). */
export function resolveEngineExecutable(explicitPath?: string, env: NodeJS.ProcessEnv = process.env): string {
  if (explicitPath) return explicitPath;
  if (env.ORVANE_RPC_PATH) return env.ORVANE_RPC_PATH;
  // dist/src/client.js -> the package folder -> the repository it was built in.
  const packageRoot = fileURLToPath(new URL('../../', import.meta.url));
  const repositoryRoot = path.resolve(packageRoot, '..', '..');
  const besides = path.resolve(repositoryRoot, env.ORVANE_BUILD_DIR ?? 'build', 'orvane-rpc');
  try {
    accessSync(besides, fsConstants.X_OK);
    return besides;
  } catch {
    return 'orvane-rpc';
  }
}

function describeRequest(request: HVRPCRequest): string {
  const what = request.action ?? request.procedure;
  const on = request.target ?? request.type;
  return on ? `${what} on ${on}` : what;
}

export class OrvaneClient extends EventEmitter<OrvaneClientEvents> {
  /** The engine's executable as started. */
  readonly executablePath: string;
  private readonly child: ChildProcessWithoutNullStreams;
  private readonly pending = new Map<string, Pending>();
  private readonly callbacks = new Map<string, CallbackHandler>();
  private readonly stderrTail: string[] = [];
  private nextRequestID = 1;
  private nextIdentifier = 1;
  private stdoutRest = '';
  private stderrRest = '';
  private closing = false;
  private exitInfo: EngineExit | undefined;
  private exitWaiters: Array<(exit: EngineExit) => void> = [];

  /** Starts the engine and resolves once its process runs. */
  static start(options: OrvaneClientOptions = {}): Promise<OrvaneClient> {
    const client = new OrvaneClient(options);
    return new Promise((resolve, reject) => {
      const onError = (error: Error) =>
        reject(new OrvaneClientError(`cannot start ${client.executablePath}: ${error.message}`));
      client.child.once('error', onError);
      client.child.once('spawn', () => {
        client.child.off('error', onError);
        resolve(client);
      });
    });
  }

  private constructor(options: OrvaneClientOptions) {
    super();
    this.executablePath = resolveEngineExecutable(options.executablePath, options.env ?? process.env);
    this.child = spawn(this.executablePath, options.args ?? [], {
      env: options.env ?? process.env,
      cwd: options.cwd,
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    if (options.onStderr) this.on('stderr', options.onStderr);

    this.child.stdout.setEncoding('utf8');
    this.child.stdout.on('data', (chunk: string) => this.readStdout(chunk));
    this.child.stderr.setEncoding('utf8');
    this.child.stderr.on('data', (chunk: string) => this.readStderr(chunk));
    // A write to an engine that has gone fails here; the exit rejects the call.
    this.child.stdin.on('error', () => {});
    this.child.on('error', () => {
      // A failed start: nothing ran, so nothing will exit either.
      if (this.child.pid === undefined) this.finish(null, null);
    });
    this.child.on('exit', (code, signal) => {
      // Let the last lines of standard output arrive, but not for long: a
      // process the engine started could hold the pipe open.
      const timer = setTimeout(() => this.finish(code, signal), 200);
      this.child.stdout.once('close', () => {
        clearTimeout(timer);
        this.finish(code, signal);
      });
      if (this.child.stdout.readableEnded || this.child.stdout.destroyed) {
        clearTimeout(timer);
        this.finish(code, signal);
      }
    });
  }

  /** The engine's process id. */
  get pid(): number | undefined {
    return this.child.pid;
  }

  /** Set once the engine has ended. */
  get exit(): EngineExit | undefined {
    return this.exitInfo;
  }

  /** A fresh identifier for a target or callback of this connection. */
  newIdentifier(prefix: string): string {
    return `${prefix}-${this.nextIdentifier++}`;
  }

  /**
   * Sends a request and resolves with its `result` (undefined when the
   * response has none); rejects with the error class of the response's status
   * and payload, or `EngineExitedError`. Requests are written in call order.
   */
  request(request: HVRPCRequest): Promise<unknown> {
    return this.send({ hvrpc: 1, ...request }, describeRequest(request));
  }

  /**
   * Sends any JSON object as a request, with a fresh `id` (and `hvrpc` 1 unless
   * it sets one). For probing the engine; a message the engine cannot read as
   * a request gets no response, and its promise settles only when the engine ends.
   */
  requestRaw(message: Record<string, unknown>): Promise<unknown> {
    return this.send({ hvrpc: 1, ...message }, String(message.action ?? message.procedure ?? 'raw request'));
  }

  private send(message: Record<string, unknown>, description: string): Promise<unknown> {
    if (this.exitInfo) return Promise.reject(this.exitInfo.error);
    const id = String(this.nextRequestID++);
    const line = JSON.stringify({ ...message, id }) + '\n';
    return new Promise((resolve, reject) => {
      this.pending.set(id, { resolve, reject, description });
      this.child.stdin.write(line);
    });
  }

  /**
   * Routes the callbacks sent to `target` to `handler` until the returned
   * function is called. One handler per target.
   */
  onCallback(target: string, handler: CallbackHandler): () => void {
    if (this.callbacks.has(target)) throw new OrvaneClientError(`a handler for callback "${target}" exists already`);
    this.callbacks.set(target, handler);
    return () => {
      if (this.callbacks.get(target) === handler) this.callbacks.delete(target);
    };
  }

  // ---- type-level actions of Recorder --------------------------------------------------------

  getDisplays(): Promise<Display[]> {
    return this.recorderType('getDisplays') as Promise<Display[]>;
  }

  getWindows(): Promise<Window[]> {
    return this.recorderType('getWindows') as Promise<Window[]>;
  }

  getCameras(options: { includeDeskView?: boolean } = {}): Promise<AudioVideoDevice[]> {
    return this.recorderType('getCameras', { includeDeskView: options.includeDeskView ?? false }) as Promise<
      AudioVideoDevice[]
    >;
  }

  getMicrophones(): Promise<AudioVideoDevice[]> {
    return this.recorderType('getMicrophones') as Promise<AudioVideoDevice[]>;
  }

  getAppleDevices(): Promise<AppleDevice[]> {
    return this.recorderType('getAppleDevices') as Promise<AppleDevice[]>;
  }

  getRunningApplications(): Promise<RunningApplication[]> {
    return this.recorderType('getRunningApplications') as Promise<RunningApplication[]>;
  }

  private recorderType(action: string, params?: unknown): Promise<unknown> {
    return this.request({ procedure: 'perform', type: 'Recorder', action, ...(params === undefined ? {} : { params }) });
  }

  /**
   * Creates a recorder in the engine (`init`). Segmented and streamed items
   * get callback identifiers of their own unless they name one; their
   * callbacks become the recorder's `segment` events and `audio()` buffers.
   */
  createRecorder(schema: RecorderSchema, options: RecorderOptions = {}): Promise<Recorder> {
    return Recorder.create(this, schema, options);
  }

  /**
   * Ends the engine (standard input closed, then SIGTERM, SIGKILL after 2 s)
   * and resolves once it has ended. A recording still running is cut off:
   * stop it first.
   */
  close(): Promise<EngineExit> {
    if (this.exitInfo) return Promise.resolve(this.exitInfo);
    this.closing = true;
    const exited = new Promise<EngineExit>((resolve) => this.exitWaiters.push(resolve));
    this.child.stdin.end();
    this.child.kill('SIGTERM');
    const timer = setTimeout(() => this.child.kill('SIGKILL'), 2000);
    return exited.finally(() => clearTimeout(timer));
  }

  /** Sends a signal to the engine (for tests of a crash). */
  kill(signal: NodeJS.Signals = 'SIGKILL'): void {
    this.child.kill(signal);
  }

  /** The last lines the engine wrote to standard error. */
  recentStderr(): string[] {
    return [...this.stderrTail];
  }

  // ---- reading ---------------------------------------------------------------------------------

  private readStdout(chunk: string): void {
    const text = this.stdoutRest + chunk;
    const lines = text.split('\n');
    this.stdoutRest = lines.pop() ?? '';
    for (const line of lines) if (line.trim() !== '') this.handleLine(line);
  }

  private readStderr(chunk: string): void {
    const text = this.stderrRest + chunk;
    const lines = text.split('\n');
    this.stderrRest = lines.pop() ?? '';
    for (const line of lines) this.emitStderr(line);
  }

  private emitStderr(line: string): void {
    this.stderrTail.push(line);
    if (this.stderrTail.length > STDERR_TAIL_LINES) this.stderrTail.shift();
    this.emit('stderr', line);
  }

  private handleLine(line: string): void {
    let message: unknown;
    try {
      message = JSON.parse(line);
    } catch {
      this.emit('protocolError', new OrvaneClientError('the engine wrote a line that is not JSON'), line);
      return;
    }
    if (typeof message !== 'object' || message === null || Array.isArray(message)) {
      this.emit('protocolError', new OrvaneClientError('the engine wrote a message that is not an object'), line);
      return;
    }
    const m = message as Record<string, unknown>;
    if (typeof m.id === 'string' && typeof m.status === 'number') {
      this.handleResponse(m.id, m.status, m, line);
      return;
    }
    if (m.id === undefined && m.procedure === 'perform' && typeof m.target === 'string') {
      this.handleCallback(m.target, m.params);
      return;
    }
    this.emit('protocolError', new OrvaneClientError('the engine wrote a message that is neither a response nor a callback'), line);
  }

  private handleResponse(id: string, status: number, message: Record<string, unknown>, line: string): void {
    const pending = this.pending.get(id);
    if (!pending) {
      this.emit('protocolError', new OrvaneClientError(`a response to unknown request "${id}"`), line);
      return;
    }
    this.pending.delete(id);
    if (status === 200) pending.resolve(message.result);
    else pending.reject(errorFromPayload(message.error, status));
  }

  private handleCallback(target: string, params: unknown): void {
    const handler = this.callbacks.get(target);
    if (!handler) {
      this.emit('unhandledCallback', target, params);
      return;
    }
    try {
      handler(params);
    } catch (error) {
      if (this.listenerCount('handlerError') > 0) this.emit('handlerError', error, target);
      else process.emitWarning(`orvane callback handler for "${target}" threw: ${String(error)}`);
    }
  }

  private finish(code: number | null, signal: NodeJS.Signals | null): void {
    if (this.exitInfo) return;
    if (this.stdoutRest.trim() !== '') this.handleLine(this.stdoutRest);
    this.stdoutRest = '';
    if (this.stderrRest !== '') this.emitStderr(this.stderrRest);
    this.stderrRest = '';

    const how =
      this.child.pid === undefined
        ? 'could not be started'
        : signal
          ? `was killed by ${signal}`
          : `exited with code ${code}`;
    const tail = this.stderrTail.length > 0 ? `; its last standard error lines:\n${this.stderrTail.join('\n')}` : '';
    const error = new EngineExitedError(
      `orvane-rpc (${this.executablePath}) ${how}${this.closing ? ' after close()' : ''}${tail}`,
      code,
      signal,
    );
    this.exitInfo = { code, signal, expected: this.closing, error };
    for (const [, pending] of this.pending) {
      pending.reject(
        new EngineExitedError(`${pending.description} did not complete: ${error.message}`, code, signal),
      );
    }
    this.pending.clear();
    this.emit('exit', this.exitInfo);
    for (const resolve of this.exitWaiters) resolve(this.exitInfo);
    this.exitWaiters = [];
  }
}
