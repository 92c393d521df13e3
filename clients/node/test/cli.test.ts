// The orvane command against the real engine on the synthetic platform.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { existsSync, readdirSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { describe, it } from 'node:test';
import { fileURLToPath } from 'node:url';

import { probeAudio, scratchFolder, sleep, syntheticEnv, syntheticMicrophone } from './support.js';

const cli = fileURLToPath(new URL('../src/cli.js', import.meta.url));

interface Run {
  code: number | null;
  stdout: string;
  stderr: string;
}

function run(args: string[], options: { interruptAfter?: number } = {}): Promise<Run> {
  return new Promise((resolve, reject) => {
    const child = spawn(process.execPath, [cli, ...args], { env: syntheticEnv(), stdio: ['ignore', 'pipe', 'pipe'] });
    let stdout = '';
    let stderr = '';
    child.stdout.setEncoding('utf8').on('data', (c: string) => (stdout += c));
    child.stderr.setEncoding('utf8').on('data', (c: string) => {
      stderr += c;
      // Ctrl-C once recording is under way.
      if (options.interruptAfter !== undefined && stderr.includes('recording to '))
        void sleep(options.interruptAfter).then(() => child.kill('SIGINT'));
    });
    child.on('error', reject);
    child.on('close', (code) => resolve({ code, stdout, stderr }));
  });
}

describe('orvane list', () => {
  it('prints the sources as a table', async () => {
    const { code, stdout, stderr } = await run(['list']);
    assert.equal(code, 0, stderr);
    assert.match(stdout, /^Displays:\n\s+ID\s+FRAME\s+MAIN\s+AVAILABILITY\n\s+1\s+1920x1080\+0\+0\s+yes\s+available$/m);
    assert.match(stdout, /^Microphones:\n\s+ID\s+NAME\s+AVAILABILITY\n\s+synthetic-microphone\s+/m);
    assert.match(stdout, /^Cameras:\n.*\n\s+synthetic-camera\s+/m);
    assert.match(stdout, /^Phones and tablets: none$/m);
  });

  it('prints JSON for scripts', async () => {
    const { code, stdout } = await run(['list', '--json']);
    assert.equal(code, 0);
    const all = JSON.parse(stdout) as Record<string, Array<{ id: unknown }>>;
    assert.deepEqual(Object.keys(all), ['displays', 'windows', 'cameras', 'microphones', 'appleDevices', 'runningApplications']);
    assert.deepEqual(all.microphones?.map((m) => m.id), [syntheticMicrophone]);
  });
});

describe('orvane record', () => {
  it('records the microphone for 2 s and prints the bundle', async () => {
    const bundle = path.join(scratchFolder(), 'cli.orvane');
    const started = Date.now();
    const { code, stdout, stderr } = await run(['record', '--mic', syntheticMicrophone, '--seconds', '2', '-o', bundle]);
    const elapsed = (Date.now() - started) / 1000;
    assert.equal(code, 0, stderr);
    assert.ok(elapsed >= 2, `${elapsed} s`);
    assert.match(stdout, new RegExp(`^bundle: ${bundle}$`, 'm'));
    // The default name is the item's: "microphone-<item id>.m4a".
    const file = /^  (microphone-\S+\.m4a)\s+audio\s+\d/m.exec(stdout)?.[1];
    assert.ok(file, stdout);
    assert.match(stdout, /^  orvane\.json\s+\d/m);
    const duration = Number(/^duration: ([\d.]+) s$/m.exec(stdout)?.[1]);
    assert.ok(duration > 1.8 && duration < 3, stdout);
    const probe = await probeAudio(path.join(bundle, file));
    assert.equal(probe.codec, 'aac');
  });

  it('stops cleanly on Ctrl-C and records segments', async () => {
    const bundle = path.join(scratchFolder(), 'interrupted.orvane');
    const { code, stdout, stderr } = await run(['record', '--mic', syntheticMicrophone, '--segmented', '-o', bundle], {
      interruptAfter: 800,
    });
    assert.equal(code, 0, stderr);
    assert.match(stdout, new RegExp(`^bundle: ${bundle}$`, 'm'));
    const files = readdirSync(bundle);
    assert.ok(files.some((f) => f.endsWith('.m3u8') && !f.endsWith('-audio.m3u8')), files.join(' '));
    assert.ok(files.some((f) => f.endsWith('.m4s')), files.join(' '));
  });

  it('takes items from a schema file and prints the result as JSON', async () => {
    const folder = scratchFolder();
    const schemaFile = path.join(folder, 'schema.json');
    writeFileSync(schemaFile, JSON.stringify([{ type: 'microphone', microphone: syntheticMicrophone, output: 'stream' }]));
    const bundle = path.join(folder, 'streamed.orvane');
    const { code, stdout, stderr } = await run(['record', '--schema', schemaFile, '--seconds', '1', '-o', bundle, '--json']);
    assert.equal(code, 0, stderr);
    const result = JSON.parse(stdout) as { url: string; info: { duration: number; files: unknown[] } };
    assert.equal(result.url, bundle);
    assert.deepEqual(result.info.files, []);
    assert.ok(existsSync(path.join(bundle, 'orvane.json')));
  });

  it('explains a failure with the library error and exits non-zero', async () => {
    const bundle = scratchFolder(); // exists already
    const { code, stderr } = await run(['record', '--mic', syntheticMicrophone, '--seconds', '1', '-o', bundle]);
    assert.equal(code, 1);
    assert.match(stderr, /\[configurationFailed -1603\]/);
  });

  it('refuses a command line without items', async () => {
    const { code, stderr } = await run(['record', '--seconds', '1']);
    assert.equal(code, 2);
    assert.match(stderr, /nothing to record/);
  });
});
