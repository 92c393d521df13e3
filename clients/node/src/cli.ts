#!/usr/bin/env node
// orvane: lists what can be recorded and records it, through the typed client.

import { readFileSync } from 'node:fs';
import { readdir, stat } from 'node:fs/promises';
import path from 'node:path';
import { parseArgs } from 'node:util';

import { OrvaneClient } from './client.js';
import { OrvaneClientError, OrvaneError, PlatformError } from './errors.js';
import type { Recorder, RecorderAbort } from './recorder.js';
import type { RecorderSchema, RecordingResult, SchemaItem } from './schema.js';

const usage = `Usage:
  orvane list [--json]
  orvane record [items] [--segmented] [--seconds N] [-o DIR] [--json]
  orvane record --schema FILE [--seconds N] [-o DIR] [--json]

Items (each may repeat):
  --display ID      a display (ids from "orvane list")
  --window ID       a window, as a crop of its display
  --camera ID       a camera, with the first --mic (else the first microphone) as its sound
  --mic ID          a microphone
  --system-audio    what the system plays, without this recorder's own sounds

Options:
  --segmented       playlists of 6 s segments instead of single files
  --seconds N       stop after N seconds (else on Ctrl-C)
  -o, --output DIR  the bundle folder, which must not exist (default ./orvane-<time>.orvane)
  --schema FILE     a recorder schema (JSON: {"items": [...]} or an array of items)
  --json            machine-readable output
  --rpc PATH        the orvane-rpc executable
  --verbose         pass the engine's standard error through
  -h, --help        this text`;

const options = {
  json: { type: 'boolean' },
  display: { type: 'string', multiple: true },
  window: { type: 'string', multiple: true },
  camera: { type: 'string', multiple: true },
  mic: { type: 'string', multiple: true },
  'system-audio': { type: 'boolean' },
  segmented: { type: 'boolean' },
  seconds: { type: 'string' },
  output: { type: 'string', short: 'o' },
  schema: { type: 'string' },
  rpc: { type: 'string' },
  verbose: { type: 'boolean' },
  help: { type: 'boolean', short: 'h' },
} as const;

type Values = ReturnType<typeof parseArgs<{ options: typeof options; allowPositionals: true }>>['values'];

class UsageError extends Error {}

async function startClient(values: Values, stderrTail: string[]): Promise<OrvaneClient> {
  return OrvaneClient.start({
    ...(values.rpc ? { executablePath: values.rpc } : {}),
    onStderr: (line) => {
      if (values.verbose) process.stderr.write(`orvane-rpc: ${line}\n`);
      stderrTail.push(line);
      if (stderrTail.length > 20) stderrTail.shift();
    },
  });
}

// ---- list ----------------------------------------------------------------------------------------

function table(title: string, header: string[], rows: string[][]): string {
  if (rows.length === 0) return `${title}: none\n`;
  const widths = header.map((h, i) => Math.max(h.length, ...rows.map((r) => (r[i] ?? '').length)));
  const line = (cells: string[]) => '  ' + cells.map((c, i) => c.padEnd(widths[i] ?? 0)).join('  ').trimEnd();
  return `${title}:\n${line(header)}\n${rows.map(line).join('\n')}\n`;
}

async function list(client: OrvaneClient, json: boolean): Promise<void> {
  const [displays, windows, cameras, microphones, appleDevices, runningApplications] = await Promise.all([
    client.getDisplays(),
    client.getWindows(),
    client.getCameras(),
    client.getMicrophones(),
    client.getAppleDevices(),
    client.getRunningApplications(),
  ]);
  if (json) {
    const all = { displays, windows, cameras, microphones, appleDevices, runningApplications };
    process.stdout.write(JSON.stringify(all, null, 2) + '\n');
    return;
  }
  const size = (f: { width: number; height: number; x: number; y: number }) => `${f.width}x${f.height}+${f.x}+${f.y}`;
  const out = [
    table('Displays', ['ID', 'FRAME', 'MAIN', 'AVAILABILITY'], displays.map((d) => [String(d.id), size(d.frame), d.isMain ? 'yes' : '', d.availability])),
    table('Windows', ['ID', 'TITLE', 'APPLICATION', 'FRAME'], windows.map((w) => [String(w.id), w.title ?? '', w.application_name ?? '', size(w.frame)])),
    table('Cameras', ['ID', 'NAME', 'AVAILABILITY'], cameras.map((c) => [c.id, c.name, c.availability])),
    table('Microphones', ['ID', 'NAME', 'AVAILABILITY'], microphones.map((m) => [m.id, m.name, m.availability])),
    table('Phones and tablets', ['ID', 'NAME', 'AVAILABILITY'], appleDevices.map((d) => [d.id, d.name, d.availability])),
    table('Applications', ['PID', 'NAME', 'BUNDLE'], runningApplications.map((a) => [String(a.id), a.name ?? '', a.bundle_identifier ?? ''])),
  ];
  process.stdout.write(out.join('\n'));
}

// ---- record --------------------------------------------------------------------------------------

function unsigned(flag: string, text: string): number {
  const value = Number(text);
  if (!Number.isInteger(value) || value < 0 || value > 0xffffffff) throw new UsageError(`--${flag} takes a number id, not "${text}"`);
  return value;
}

async function schemaFromFlags(client: OrvaneClient, values: Values): Promise<RecorderSchema> {
  if (values.schema) {
    const parsed: unknown = JSON.parse(readFileSync(values.schema, 'utf8'));
    const schema = (Array.isArray(parsed) ? { items: parsed } : parsed) as RecorderSchema;
    if (!schema || !Array.isArray(schema.items)) throw new UsageError(`${values.schema} holds no "items" array`);
    return schema;
  }
  const output = values.segmented ? ({ output: 'segmented' } as const) : {};
  const items: SchemaItem[] = [];
  const mics = [...(values.mic ?? [])];
  for (const id of values.display ?? []) items.push({ type: 'display', display: unsigned('display', id), ...output });
  for (const id of values.window ?? []) items.push({ type: 'windowBasedCrop', window: unsigned('window', id), ...output });
  for (const camera of values.camera ?? []) {
    let microphone = mics.shift();
    if (microphone === undefined) {
      const [first] = await client.getMicrophones();
      if (!first) throw new UsageError('--camera records with a microphone, and there is none');
      microphone = first.id;
    }
    items.push({ type: 'webcam', camera, microphone, ...output });
  }
  for (const microphone of mics) items.push({ type: 'microphone', microphone, ...output });
  if (values['system-audio'])
    items.push({ type: 'systemAudio', mode: 'exclude', excludeOptions: ['currentProcess'], ...output });
  return { items };
}

function timestamp(): string {
  return new Date().toISOString().replace(/[-:]/g, '').replace(/\.\d+Z$/, 'Z');
}

function formatBytes(bytes: number): string {
  if (bytes < 1000) return `${bytes} B`;
  const units = ['kB', 'MB', 'GB', 'TB'];
  let value = bytes;
  let unit = -1;
  while (value >= 1000 && unit < units.length - 1) {
    value /= 1000;
    unit++;
  }
  return `${value.toFixed(1)} ${units[unit]}`;
}

function formatElapsed(ms: number): string {
  const seconds = ms / 1000;
  const minutes = Math.floor(seconds / 60);
  return `${String(minutes).padStart(2, '0')}:${(seconds - minutes * 60).toFixed(1).padStart(4, '0')}`;
}

async function folderBytes(folder: string): Promise<number> {
  let total = 0;
  try {
    for (const name of await readdir(folder)) {
      try {
        total += (await stat(path.join(folder, name))).size;
      } catch {
        // A file renamed over between listing and stat: the next tick counts it.
      }
    }
  } catch {
    // Not created yet.
  }
  return total;
}

function describeError(error: unknown): string {
  if (error instanceof OrvaneError) return `${error.message} [${error.code} ${error.codeNumber}]`;
  if (error instanceof PlatformError) return `${error.message} [${error.errorDomain} ${error.errorCode}]`;
  if (error instanceof OrvaneClientError && error.status !== undefined) return `${error.message} [status ${error.status}]`;
  return error instanceof Error ? error.message : String(error);
}

async function printBundle(result: RecordingResult, json: boolean): Promise<void> {
  if (json) {
    process.stdout.write(JSON.stringify(result, null, 2) + '\n');
    return;
  }
  const types = new Map(result.info.files.map((f) => [f.filename, f.type]));
  let names: string[] = [];
  try {
    names = (await readdir(result.url)).sort();
  } catch {
    names = [...types.keys()];
  }
  const rows: string[][] = [];
  for (const name of names) {
    let size = '';
    try {
      size = formatBytes((await stat(path.join(result.url, name))).size);
    } catch {
      size = 'missing';
    }
    rows.push([name, types.get(name) ?? '', size]);
  }
  const width = Math.max(...rows.map((r) => (r[0] ?? '').length), 4);
  process.stdout.write(`bundle: ${result.url}\n`);
  for (const [name, type, size] of rows) process.stdout.write(`  ${(name ?? '').padEnd(width)}  ${(type ?? '').padEnd(11)}  ${size}\n`);
  process.stdout.write(`duration: ${result.info.duration.toFixed(2)} s\n`);
}

async function record(client: OrvaneClient, values: Values): Promise<number> {
  const schema = await schemaFromFlags(client, values);
  if (schema.items.length === 0) throw new UsageError('nothing to record: give --mic, --display, --window, --camera, --system-audio or --schema');
  if (values.output) schema.output_directory = path.resolve(values.output);
  if (!schema.output_directory) schema.output_directory = path.resolve(`orvane-${timestamp()}.orvane`);
  const seconds = values.seconds === undefined ? undefined : Number(values.seconds);
  if (seconds !== undefined && !(seconds > 0)) throw new UsageError(`--seconds takes a positive number, not "${values.seconds}"`);

  let segments = 0;
  let streamedSeconds = 0;
  let aborted: RecorderAbort | undefined;
  let stopRequested: () => void = () => {};
  const stopSignal = new Promise<string>((resolve) => {
    stopRequested = () => resolve('stop');
  });

  const recorder: Recorder = await client.createRecorder(schema, {
    onAbort: (abort) => {
      aborted = abort;
      stopRequested();
    },
  });
  // Media segments only: the init segment of each playlist is announced too.
  recorder.on('segment', ({ path: file }) => {
    if (!file.endsWith('.mp4')) segments++;
  });
  const readers = schema.items.flatMap((item, index) =>
    'output' in item && item.output === 'stream'
      ? [
          (async () => {
            for await (const buffer of recorder.audio(index)) streamedSeconds += buffer.numberOfFrames / buffer.sampleRate;
          })(),
        ]
      : [],
  );

  const live = process.stderr.isTTY === true && !values.json;
  let interrupts = 0;
  const onSignal = () => {
    interrupts++;
    if (interrupts > 1) {
      // A second Ctrl-C: the user gives up on a clean stop.
      client.kill('SIGKILL');
      process.exit(130);
    }
    stopRequested();
  };
  process.on('SIGINT', onSignal);
  process.on('SIGTERM', onSignal);

  let progress: NodeJS.Timeout | undefined;
  let result: RecordingResult;
  try {
    await recorder.prepare();
    await recorder.start();
    const started = Date.now();
    if (!live) process.stderr.write(`recording to ${schema.output_directory}\n`);
    let bytes = 0;
    const showProgress = () => {
      const parts = [`● ${formatElapsed(Date.now() - started)}`, formatBytes(bytes), `${segments} segment${segments === 1 ? '' : 's'}`];
      if (readers.length > 0) parts.push(`${streamedSeconds.toFixed(1)} s streamed`);
      process.stderr.write(`\r\x1b[K${parts.join('  ')}  (Ctrl-C stops)`);
    };
    if (live) {
      progress = setInterval(() => {
        void folderBytes(schema.output_directory ?? '').then((b) => {
          bytes = b;
          showProgress();
        });
      }, 250);
      showProgress();
    }
    const timer = seconds === undefined ? undefined : setTimeout(stopRequested, seconds * 1000);
    await stopSignal;
    if (timer) clearTimeout(timer);
    if (progress) clearInterval(progress);
    if (live) process.stderr.write('\r\x1b[K');
    if (aborted) process.stderr.write(`the recording ended on its own (${aborted.reason})${aborted.error ? ': ' + describeError(aborted.error) : ''}\n`);
    result = await recorder.stop();
    await Promise.all(readers);
  } finally {
    if (progress) clearInterval(progress);
    process.off('SIGINT', onSignal);
    process.off('SIGTERM', onSignal);
    await recorder.release().catch(() => {});
  }
  await printBundle(result, values.json === true);
  if (readers.length > 0 && !values.json) process.stdout.write(`streamed: ${streamedSeconds.toFixed(3)} s\n`);
  return aborted && aborted.reason !== 'userStopped' ? 1 : 0;
}

// ---- main ----------------------------------------------------------------------------------------

async function main(argv: string[]): Promise<number> {
  let parsed;
  try {
    parsed = parseArgs({ args: argv, options, allowPositionals: true });
  } catch (error) {
    process.stderr.write(`orvane: ${(error as Error).message}\n${usage}\n`);
    return 2;
  }
  const { values, positionals } = parsed;
  const command = positionals[0];
  if (values.help || command === undefined || command === 'help') {
    process.stdout.write(usage + '\n');
    return command === undefined && !values.help ? 2 : 0;
  }
  if (command !== 'list' && command !== 'record') {
    process.stderr.write(`orvane: unknown command "${command}"\n${usage}\n`);
    return 2;
  }
  const stderrTail: string[] = [];
  let client: OrvaneClient | undefined;
  try {
    client = await startClient(values, stderrTail);
    if (command === 'list') {
      await list(client, values.json === true);
      return 0;
    }
    return await record(client, values);
  } catch (error) {
    if (error instanceof UsageError) {
      process.stderr.write(`orvane: ${error.message}\n`);
      return 2;
    }
    process.stderr.write(`orvane: ${describeError(error)}\n`);
    if (!values.verbose && stderrTail.length > 0) process.stderr.write(`orvane-rpc said:\n  ${stderrTail.join('\n  ')}\n`);
    return 1;
  } finally {
    await client?.close();
  }
}

process.exitCode = await main(process.argv.slice(2));
