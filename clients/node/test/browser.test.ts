// Playback in a real browser: a segmented microphone recording through hls.js
// and a single-file one in an <audio> element, both in headless Chromium from
// a loopback server, each to its end without an error event. The page is kept
// as a screenshot under test-artifacts/.

import assert from 'node:assert/strict';
import { existsSync, mkdirSync, readFileSync } from 'node:fs';
import { createServer, type Server } from 'node:http';
import type { AddressInfo } from 'node:net';
import path from 'node:path';
import { after, before, describe, it } from 'node:test';

import type { Browser, Page } from 'playwright-core';

import { OrvaneClient, type RecordingResult } from '../src/index.js';
import { packageRoot, scratchFolder, sleep, startSynthetic, syntheticMicrophone } from './support.js';

const chromiumPath = process.env.ORVANE_TEST_CHROMIUM ?? '/usr/bin/chromium';
const artifacts = path.join(packageRoot, 'test-artifacts');
// Faster than real time keeps the test short; the media clock still has to run to the end.
const playbackRate = 2;

const contentTypes: Record<string, string> = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript',
  '.m3u8': 'application/vnd.apple.mpegurl',
  '.mp4': 'audio/mp4',
  '.m4s': 'audio/mp4',
  '.m4a': 'audio/mp4',
};

const page = `<!doctype html>
<html><head><meta charset="utf-8"><title>orvane playback</title>
<style>body{font:14px sans-serif;margin:16px}section{margin-bottom:16px}pre{background:#eee;padding:8px}</style>
<script src="/hls.js"></script></head>
<body>
<h1>orvane playback check</h1>
<section><h2>segmented (hls.js)</h2><audio id="hls" controls></audio><pre id="hls-state">waiting</pre></section>
<section><h2>single file (&lt;audio&gt;)</h2><audio id="file" controls></audio><pre id="file-state">waiting</pre></section>
<script>
const rate = ${playbackRate};
window.report = {};
function watch(name, media) {
  const r = window.report[name] = { ended: false, errors: [], maxTime: 0, currentTime: 0, duration: NaN };
  const show = () => {
    r.currentTime = media.currentTime; r.duration = media.duration;
    r.maxTime = Math.max(r.maxTime, media.currentTime);
    document.getElementById(name + '-state').textContent = JSON.stringify(r, null, 1);
  };
  media.addEventListener('timeupdate', show);
  media.addEventListener('error', () => { r.errors.push('media error ' + (media.error && media.error.code) + ' ' + (media.error && media.error.message)); show(); });
  media.addEventListener('ended', () => { r.ended = true; show(); });
  media.addEventListener('loadedmetadata', () => { media.playbackRate = rate; show(); });
  media.defaultPlaybackRate = rate;
  return r;
}
const hlsMedia = document.getElementById('hls');
const hlsReport = watch('hls', hlsMedia);
if (!Hls.isSupported()) hlsReport.errors.push('hls.js: MediaSource is not supported');
else {
  const hls = new Hls();
  hls.on(Hls.Events.ERROR, (event, data) => hlsReport.errors.push('hls.js ' + data.type + ' ' + data.details + (data.fatal ? ' (fatal)' : '')));
  hls.on(Hls.Events.MANIFEST_PARSED, () => hlsMedia.play().catch((e) => hlsReport.errors.push('play: ' + e.message)));
  hls.loadSource('/segmented/mic.m3u8');
  hls.attachMedia(hlsMedia);
}
const fileMedia = document.getElementById('file');
const fileReport = watch('file', fileMedia);
fileMedia.src = '/single/mic.m4a';
fileMedia.play().catch((e) => fileReport.errors.push('play: ' + e.message));
</script></body></html>`;

interface PlaybackReport {
  ended: boolean;
  errors: string[];
  maxTime: number;
  currentTime: number;
  duration: number;
}

function serve(roots: Record<string, string>): Promise<Server> {
  const hlsScript = path.join(packageRoot, 'node_modules', 'hls.js', 'dist', 'hls.min.js');
  const server = createServer((request, response) => {
    const url = new URL(request.url ?? '/', 'http://localhost');
    let file: string | undefined;
    if (url.pathname === '/') {
      response.writeHead(200, { 'content-type': contentTypes['.html'] ?? '' }).end(page);
      return;
    }
    if (url.pathname === '/favicon.ico') {
      response.writeHead(204).end();
      return;
    }
    if (url.pathname === '/hls.js') file = hlsScript;
    const [, root, name] = /^\/([a-z]+)\/([\w.-]+)$/.exec(url.pathname) ?? [];
    if (root && name && roots[root]) file = path.join(roots[root], name);
    if (!file || !existsSync(file)) {
      response.writeHead(404).end();
      return;
    }
    response.writeHead(200, { 'content-type': contentTypes[path.extname(file)] ?? 'application/octet-stream' });
    response.end(readFileSync(file));
  });
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve(server)));
}

async function recordMicrophone(item: 'segmented' | 'singleFile', seconds: number, bundle: string): Promise<RecordingResult> {
  const client: OrvaneClient = await startSynthetic();
  try {
    const recorder = await client.createRecorder({
      output_directory: bundle,
      items: [
        item === 'segmented'
          ? { type: 'microphone', microphone: syntheticMicrophone, output: 'segmented', filenamePrefix: 'mic' }
          : { type: 'microphone', microphone: syntheticMicrophone, filename: 'mic.m4a' },
      ],
    });
    await recorder.start();
    await sleep(seconds * 1000);
    const result = await recorder.stop();
    await recorder.release();
    return result;
  } finally {
    await client.close();
  }
}

async function launchChromium(): Promise<Browser | string> {
  try {
    const { chromium } = await import('playwright-core');
    return await chromium.launch({
      executablePath: chromiumPath,
      headless: true,
      // --no-sandbox: the tests run as root, where Chromium's sandbox refuses to start.
      args: ['--headless', '--no-sandbox', '--autoplay-policy=no-user-gesture-required'],
      timeout: 30000,
    });
  } catch (error) {
    return `Chromium did not start: ${(error as Error).message.split('\n')[0]}`;
  }
}

describe('playback in headless Chromium', () => {
  let browser: Browser | string;
  let segmented: RecordingResult;
  let single: RecordingResult;
  let server: Server | undefined;

  before(async () => {
    if (!existsSync(chromiumPath)) {
      browser = `${chromiumPath} is not installed (scripts/setup.sh installs Debian's chromium)`;
      return;
    }
    const folder = scratchFolder();
    // Two segments of 6 s: the player has to move from one segment to the next.
    [browser, segmented, single] = await Promise.all([
      launchChromium(),
      recordMicrophone('segmented', 7.5, path.join(folder, 'segmented.orvane')),
      recordMicrophone('singleFile', 2, path.join(folder, 'single.orvane')),
    ]);
    server = await serve({ segmented: segmented.url, single: single.url });
  });

  after(async () => {
    if (typeof browser !== 'string') await browser.close();
    server?.close();
  });

  it('plays the segmented recording with hls.js and the single file with <audio>, each to its end', async (t) => {
    if (typeof browser === 'string') {
      t.skip(`no browser check: ${browser}`);
      return;
    }
    const playlist = readFileSync(path.join(segmented.url, 'mic-audio.m3u8'), 'utf8');
    const segmentSeconds = Number(/#EXT-X-TARGETDURATION:(\d+)/.exec(playlist)?.[1]);
    assert.equal((playlist.match(/^mic-audio-\d{4}\.m4s$/gm) ?? []).length, 2, playlist);

    const tab: Page = await browser.newPage();
    const consoleErrors: string[] = [];
    tab.on('console', (message) => {
      if (message.type() === 'error') consoleErrors.push(message.text());
    });
    tab.on('pageerror', (error) => consoleErrors.push(error.message));
    const { port } = (server?.address() ?? {}) as AddressInfo;
    await tab.goto(`http://127.0.0.1:${port}/`);
    try {
      await tab.waitForFunction(
        `(() => { const r = window.report; return r.hls && r.file && (r.hls.ended || r.hls.errors.length > 0) && (r.file.ended || r.file.errors.length > 0); })()`,
        undefined,
        { timeout: 30000, polling: 100 },
      );
    } finally {
      mkdirSync(artifacts, { recursive: true });
      await tab.screenshot({ path: path.join(artifacts, 'playback.png'), fullPage: true });
    }
    const report = (await tab.evaluate('window.report')) as { hls: PlaybackReport; file: PlaybackReport };
    await tab.close();

    t.diagnostic(`hls.js: ended at ${report.hls.currentTime} s of ${report.hls.duration} s; ${segmented.info.duration} s recorded`);
    t.diagnostic(`<audio>: ended at ${report.file.currentTime} s of ${report.file.duration} s; ${single.info.duration} s recorded`);
    assert.deepEqual(consoleErrors, []);
    assert.deepEqual(report.hls.errors, []);
    assert.ok(report.hls.ended, JSON.stringify(report.hls));
    // The end is where the recording ends, within one segment.
    assert.ok(Math.abs(report.hls.currentTime - segmented.info.duration) <= segmentSeconds, `${JSON.stringify(report.hls)} vs ${segmented.info.duration} s recorded`);
    assert.ok(Math.abs(report.hls.duration - segmented.info.duration) <= segmentSeconds, JSON.stringify(report.hls));
    assert.ok(report.hls.currentTime > segmentSeconds, 'playback went past the first segment');

    assert.deepEqual(report.file.errors, []);
    assert.ok(report.file.ended, JSON.stringify(report.file));
    assert.ok(Math.abs(report.file.currentTime - single.info.duration) < 0.1, `${JSON.stringify(report.file)} vs ${single.info.duration} s recorded`);
  });
});
