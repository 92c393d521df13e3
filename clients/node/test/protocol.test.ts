// The connection itself: statuses as error classes, callbacks kept apart from
// responses, requests written ahead in order, the engine's end, standard error.

import assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { writeFileSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

import {
  BadRequestError,
  ConflictError,
  EngineExitedError,
  HVRPCError,
  InternalEngineError,
  NotFoundError,
  NotImplementedError,
  OperationFailedError,
  OrvaneClient,
  OrvaneClientError,
  OrvaneError,
  PlatformError,
  ReleasedError,
  UnsupportedVersionError,
  errorFromPayload,
  orvaneErrorCodes,
  resolveEngineExecutable,
  type EngineExit,
  type RecorderAbort,
} from '../src/index.js';
import { packageRoot, scratchFolder, sleep, startSynthetic, syntheticMicrophone, worldWithMicrophoneFault } from './support.js';

const fakeEngine = fileURLToPath(new URL('./fake-engine.js', import.meta.url));

function startFake(onStderr?: (line: string) => void): Promise<OrvaneClient> {
  return OrvaneClient.start({ executablePath: process.execPath, args: [fakeEngine], ...(onStderr ? { onStderr } : {}) });
}

describe('protocol statuses from the real engine', () => {
  let client: OrvaneClient;
  before(async () => {
    client = await startSynthetic();
  });
  after(async () => {
    await client.close();
  });

  it('answers a type-level and an instance-level Echo', async () => {
    assert.equal(await client.request({ procedure: 'perform', type: 'Echo', action: 'ping' }), 'pong');
    await client.request({ procedure: 'init', type: 'Echo', target: 'echo-ping' });
    assert.equal(await client.request({ procedure: 'perform', target: 'echo-ping', action: 'ping' }), 'pong');
  });

  it('gives 202 with a protocol payload as OperationFailedError and a wrong params shape as PlatformError', async () => {
    const failed = await client.request({ procedure: 'perform', type: 'Echo', action: 'fail' }).catch((e: unknown) => e);
    assert.ok(failed instanceof OrvaneClientError, String(failed));
    assert.equal(failed.status, 202);
    // A wrong shape of params is a decoding failure of the type: 202, NSError, domain DecodingError.
    const decoding = await client
      .request({ procedure: 'perform', type: 'Recorder', action: 'getCameras', params: { includeDeskView: 'no' } })
      .catch((e: unknown) => e);
    assert.ok(decoding instanceof PlatformError, String(decoding));
    assert.equal(decoding.status, 202);
    assert.equal(decoding.errorDomain, 'DecodingError');
    assert.match(decoding.debugDescription ?? '', /includeDeskView/);
  });

  it('gives 400 as BadRequestError', async () => {
    const error = await client.request({ procedure: 'init', type: 'Echo' }).catch((e: unknown) => e);
    assert.ok(error instanceof BadRequestError, String(error));
    assert.equal(error.status, 400);
    assert.match(error.debugDescription ?? '', /target/);
  });

  it('gives 404 as NotFoundError', async () => {
    await assert.rejects(client.request({ procedure: 'perform', type: 'Recorder', action: 'pause' }), (e: unknown) => {
      assert.ok(e instanceof NotFoundError);
      assert.equal(e.status, 404);
      assert.equal(e.debugDescription, "Unknown action 'pause'.");
      return true;
    });
    await assert.rejects(client.request({ procedure: 'perform', target: 'nobody', action: 'ping' }), NotFoundError);
  });

  it('gives 405 after manual-release and 409 on a taken identifier', async () => {
    await client.request({ procedure: 'init', type: 'Echo', target: 'echo-zombie' });
    await assert.rejects(client.request({ procedure: 'init', type: 'Echo', target: 'echo-zombie' }), (e: unknown) => {
      assert.ok(e instanceof ConflictError);
      assert.equal(e.status, 409);
      return true;
    });
    await client.request({ procedure: 'manual-release', target: 'echo-zombie' });
    await assert.rejects(client.request({ procedure: 'perform', target: 'echo-zombie', action: 'ping' }), (e: unknown) => {
      assert.ok(e instanceof ReleasedError);
      assert.equal(e.status, 405);
      assert.match(e.debugDescription ?? '', /released/);
      return true;
    });
    await assert.rejects(client.request({ procedure: 'init', type: 'Echo', target: 'echo-zombie' }), ConflictError);
  });

  it('gives 501 as NotImplementedError and 505 as UnsupportedVersionError', async () => {
    // A perform with an action but neither target nor type is a closure perform.
    await assert.rejects(client.request({ procedure: 'perform', action: 'ping' }), (e: unknown) => {
      assert.ok(e instanceof NotImplementedError);
      assert.equal(e.status, 501);
      return true;
    });
    await assert.rejects(
      client.requestRaw({ hvrpc: 2, procedure: 'perform', type: 'Echo', action: 'ping' }),
      (e: unknown) => {
        assert.ok(e instanceof UnsupportedVersionError);
        assert.equal(e.status, 505);
        assert.match(e.debugDescription ?? '', /version '2'/);
        return true;
      },
    );
  });

  it('settles requests written ahead of their answers, each with its own response', async () => {
    await client.request({ procedure: 'init', type: 'Echo', target: 'echo-ahead' });
    const calls = Array.from({ length: 40 }, (_, i) =>
      i % 3 === 2
        ? client.request({ procedure: 'perform', target: 'echo-ahead', action: 'fail' }).then(
            () => 'resolved',
            (e: unknown) => (e instanceof OrvaneClientError ? `status ${e.status}` : 'other'),
          )
        : client.request({ procedure: 'perform', target: 'echo-ahead', action: 'ping' }),
    );
    const answers = await Promise.all(calls);
    assert.deepEqual(
      answers,
      Array.from({ length: 40 }, (_, i) => (i % 3 === 2 ? 'status 202' : 'pong')),
    );
  });
});

describe('the engine a client starts', () => {
  it('is the explicit path, else $ORVANE_RPC_PATH, else the one built beside the package, else orvane-rpc on the PATH', () => {
    const repository = path.resolve(packageRoot, '..', '..');
    const built = scratchFolder();
    writeFileSync(path.join(built, 'orvane-rpc'), '', { mode: 0o755 });
    assert.equal(resolveEngineExecutable('/opt/x/orvane-rpc', { ORVANE_RPC_PATH: '/env/orvane-rpc' }), '/opt/x/orvane-rpc');
    assert.equal(resolveEngineExecutable(undefined, { ORVANE_RPC_PATH: '/env/orvane-rpc', ORVANE_BUILD_DIR: built }), '/env/orvane-rpc');
    assert.equal(resolveEngineExecutable(undefined, { ORVANE_BUILD_DIR: built }), path.join(built, 'orvane-rpc'));
    assert.equal(resolveEngineExecutable(undefined, { ORVANE_BUILD_DIR: path.relative(repository, built) }), path.join(built, 'orvane-rpc'));
    assert.equal(resolveEngineExecutable(undefined, { ORVANE_BUILD_DIR: scratchFolder() }), 'orvane-rpc');
  });
});

describe('error payloads', () => {
  it('makes OrvaneError of the library payload with its code and number', () => {
    const error = errorFromPayload(
      {
        name: 'OrvaneError',
        code: 'configurationNotSupported',
        codeNumber: -1604,
        message: 'Display recording is not supported.',
        debugDescription: 'display',
      },
      202,
    );
    assert.ok(error instanceof OrvaneError);
    assert.equal(error.code, 'configurationNotSupported');
    assert.equal(error.codeNumber, orvaneErrorCodes.configurationNotSupported);
    assert.equal(error.message, 'Display recording is not supported.');
    assert.equal(error.status, 202);
    assert.ok(!(error instanceof HVRPCError));
  });
});

describe('a stand-in engine', () => {
  it('gives 500 as InternalEngineError and every other status its class', async () => {
    const client = await startFake();
    try {
      const expected: Array<[number, new (...args: never[]) => Error]> = [
        [202, OperationFailedError],
        [400, BadRequestError],
        [404, NotFoundError],
        [405, ReleasedError],
        [409, ConflictError],
        [500, InternalEngineError],
        [501, NotImplementedError],
        [505, UnsupportedVersionError],
      ];
      for (const [status, ErrorClass] of expected) {
        const error = await client.request({ procedure: 'perform', action: `status${status}` }).catch((e: unknown) => e);
        assert.ok(error instanceof ErrorClass, `${status}: ${String(error)}`);
        assert.ok(error instanceof HVRPCError);
        assert.equal(error.status, status);
        assert.equal(error.userMessage, 'Failed to communicate with external process.');
        assert.equal(error.debugDescription, `asked for status${status}`);
      }
    } finally {
      await client.close();
    }
  });

  it('routes callbacks around a response to their handler and never reads standard error as protocol', async () => {
    const stderr: string[] = [];
    const client = await startFake((line) => stderr.push(line));
    try {
      const heard: unknown[] = [];
      // The first request's id is "1": a callback to target "1" is still a callback.
      client.onCallback('1', (params) => heard.push(params));
      const protocolErrors: string[] = [];
      client.on('protocolError', (_error, line) => protocolErrors.push(line));
      assert.equal(await client.request({ procedure: 'perform', target: 'x', action: 'callbackAround' }), 'answer');
      await sleep(50);
      assert.deepEqual(heard, [{ before: true }, { after: true }]);
      assert.ok(stderr.includes('fake engine starting'));
      assert.ok(stderr.some((line) => line.includes('"result":"from stderr"')));
      // A line that is not JSON is reported and does not break the reading.
      assert.equal(await client.request({ procedure: 'perform', target: 'x', action: 'garbage' }), 'after garbage');
      assert.deepEqual(protocolErrors, ['this is not json']);
    } finally {
      await client.close();
    }
  });

  it('reports an engine that exits on its own: pending calls rejected, one exit event', async () => {
    const client = await startFake();
    const exits: EngineExit[] = [];
    client.on('exit', (exit) => exits.push(exit));
    const pending = client.request({ procedure: 'perform', target: 'x', action: 'echo' });
    await pending;
    const dying = client.request({ procedure: 'perform', target: 'x', action: 'exit3' });
    await assert.rejects(dying, (e: unknown) => {
      assert.ok(e instanceof EngineExitedError);
      assert.equal(e.exitCode, 3);
      assert.match(e.message, /exit3 on x did not complete: .*exited with code 3/);
      assert.match(e.message, /fake engine gives up/);
      return true;
    });
    await assert.rejects(client.request({ procedure: 'perform', target: 'x', action: 'ping' }), EngineExitedError);
    const closed = await client.close();
    assert.equal(exits.length, 1);
    assert.equal(closed, exits[0]);
    assert.equal(closed.expected, false);
  });

  it('routes the abort callback to onAbort with its error as OrvaneError', async () => {
    const client = await startFake();
    try {
      const aborts: RecorderAbort[] = [];
      const recorder = await client.createRecorder(
        { items: [{ type: 'microphone', microphone: 'm', output: 'stream' }] },
        { onAbort: (abort) => aborts.push(abort) },
      );
      const events: RecorderAbort[] = [];
      recorder.on('abort', (abort) => events.push(abort));
      const buffers = recorder.audio(0);
      await recorder.start();
      // The stream ends with the recording.
      assert.deepEqual(await buffers.next(), { value: undefined, done: true });
      assert.equal(aborts.length, 1);
      assert.deepEqual(events, aborts);
      const abort = aborts[0];
      assert.equal(abort?.reason, 'interrupted');
      assert.equal(abort?.result?.url, '/tmp/aborted.orvane');
      assert.ok(abort?.error instanceof OrvaneError);
      assert.equal(abort.error.code, 'microphoneUnavailable');
      assert.equal(abort.error.codeNumber, -1201);
      assert.equal(abort.error.message, 'The microphone went away.');
      assert.deepEqual(await recorder.stop(), abort.result);
      await recorder.release();
    } finally {
      await client.close();
    }
  });

  it('fails to start an executable that does not exist', async () => {
    await assert.rejects(
      OrvaneClient.start({ executablePath: '/nonexistent/orvane-rpc' }),
      (e: unknown) => e instanceof OrvaneClientError && /cannot start \/nonexistent\/orvane-rpc/.test(e.message),
    );
  });
});

describe('a killed engine', () => {
  it('rejects the pending call within 1 s and emits exit once', async (t) => {
    // The microphone never delivers, so prepare waits for its first samples.
    const client = await startSynthetic({ world: worldWithMicrophoneFault({ kind: 'neverDelivers' }) });
    const exits: EngineExit[] = [];
    client.on('exit', (exit) => exits.push(exit));
    const recorder = await client.createRecorder({ items: [{ type: 'microphone', microphone: syntheticMicrophone }] });
    const prepare = recorder.prepare();
    const settled = prepare.then(
      () => 'resolved',
      (e: unknown) => e,
    );
    await sleep(300);
    const killedAt = performance.now();
    client.kill('SIGKILL');
    const error = await settled;
    const elapsed = performance.now() - killedAt;
    assert.ok(error instanceof EngineExitedError, String(error));
    assert.equal(error.signal, 'SIGKILL');
    assert.match(error.message, /prepare on recorder-\d+ did not complete: .*was killed by SIGKILL/);
    t.diagnostic(`rejected ${elapsed.toFixed(1)} ms after the kill`);
    assert.ok(elapsed < 1000, `rejected ${elapsed.toFixed(0)} ms after the kill`);
    await sleep(50);
    assert.equal(exits.length, 1);
    assert.equal(exits[0]?.expected, false);
    // Nothing is left to release; release does not throw after the end.
    await recorder.release();
    await client.close();
    assert.equal(exits.length, 1);
  });
});
