// What the tests share: the engine on the synthetic platform, scratch
// folders, and ffprobe.

import { execFile } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

import { OrvaneClient, resolveEngineExecutable, type OrvaneClientOptions } from '../src/index.js';

export const packageRoot = fileURLToPath(new URL('../../', import.meta.url));
export const engineExecutable = resolveEngineExecutable();
/** The synthetic world's microphone: 440 Hz, 48 kHz. */
export const syntheticMicrophone = 'synthetic-microphone';

const scratchFolders: string[] = [];

/** A fresh folder, removed when the test process exits. */
export function scratchFolder(name = 'orvane-node-test-'): string {
  const folder = mkdtempSync(path.join(tmpdir(), name));
  scratchFolders.push(folder);
  return folder;
}

process.on('exit', () => {
  if (process.env.ORVANE_KEEP_TEST_FILES) return;
  for (const folder of scratchFolders) rmSync(folder, { recursive: true, force: true });
});

/** The environment of a synthetic engine, its default bundles in a scratch folder. */
export function syntheticEnv(world?: unknown): NodeJS.ProcessEnv {
  const env: NodeJS.ProcessEnv = {
    ...process.env,
    ORVANE_PLATFORM: 'synthetic',
    ORVANE_OS_LOG: 'error',
    ORVANE_OS_LOG_TARGET: 'stderr',
    TMPDIR: scratchFolder('orvane-node-tmp-'),
  };
  if (world !== undefined) {
    const file = path.join(scratchFolder('orvane-node-world-'), 'world.json');
    writeFileSync(file, JSON.stringify(world));
    env.ORVANE_SYNTHETIC_WORLD = file;
  }
  return env;
}

/** A client of a synthetic engine; standard error is kept for failure messages. */
export async function startSynthetic(
  options: { world?: unknown } & Omit<OrvaneClientOptions, 'env'> = {},
): Promise<OrvaneClient> {
  const { world, ...rest } = options;
  return OrvaneClient.start({ env: syntheticEnv(world), ...rest });
}

export const sleep = (ms: number) => new Promise<void>((resolve) => setTimeout(resolve, ms));

export interface Probe {
  codec: string;
  sampleRate: number;
  channels: number;
  duration: number;
}

/** The first audio stream of a file or playlist, as ffprobe reads it. */
export async function probeAudio(file: string): Promise<Probe> {
  const { stdout } = await promisify(execFile)('ffprobe', [
    '-v', 'error',
    '-select_streams', 'a:0',
    '-show_entries', 'stream=codec_name,sample_rate,channels:format=duration',
    '-of', 'json',
    file,
  ]);
  const json = JSON.parse(stdout) as {
    streams: Array<{ codec_name: string; sample_rate: string; channels: number }>;
    format: { duration: string };
  };
  const stream = json.streams[0];
  if (!stream) throw new Error(`${file} has no audio stream`);
  return {
    codec: stream.codec_name,
    sampleRate: Number(stream.sample_rate),
    channels: stream.channels,
    duration: Number(json.format.duration),
  };
}

/** The synthetic world of the defaults, spelled out, with a fault on its microphone. */
export function worldWithMicrophoneFault(fault: { kind: string; after?: number }): unknown {
  return {
    microphones: [
      {
        uniqueID: syntheticMicrophone,
        name: 'Synthetic Microphone',
        audio: { sampleRate: 48000, channels: 1, tone: { frequency: 440, level: 0.5 } },
        faults: [fault],
      },
    ],
  };
}
