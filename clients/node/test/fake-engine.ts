// A stand-in engine for what the real one cannot be made to do on demand: it
// answers "perform" with the status named by the action ("status500"), sends
// callbacks around its answers, and writes noise to standard error.

import { createInterface } from 'node:readline';

const write = (message: unknown) => process.stdout.write(JSON.stringify(message) + '\n');

process.stderr.write('fake engine starting\n');
// A recorder whose recording ends on its own right after it starts.
const abortTargets = new Map<string, string>();
const abortedResult = { url: '/tmp/aborted.orvane', info: { version: 1, files: [{ type: 'audio', filename: 'mic.m4a' }], duration: 0.25 } };

const lines = createInterface({ input: process.stdin });
lines.on('line', (line) => {
  const request = JSON.parse(line) as { id: string; procedure: string; target?: string; action?: string; params?: unknown };
  const action = request.action ?? '';
  const status = /^status(\d+)$/.exec(action);
  const abortTarget = abortTargets.get(request.target ?? '');
  if (request.procedure === 'init') {
    const params = request.params as { onAbortInstance?: string } | undefined;
    if (request.target && params?.onAbortInstance) abortTargets.set(request.target, params.onAbortInstance);
    write({ hvrpc: 1, status: 200, id: request.id });
  } else if (request.procedure === 'release') {
    write({ hvrpc: 1, status: 200, id: request.id });
  } else if (abortTarget && action === 'start') {
    write({ hvrpc: 1, status: 200, id: request.id });
    setTimeout(() => {
      write({
        hvrpc: 1,
        procedure: 'perform',
        target: abortTarget,
        params: {
          reason: 'interrupted',
          result: abortedResult,
          error: { name: 'OrvaneError', code: 'microphoneUnavailable', codeNumber: -1201, message: 'The microphone went away.', debugDescription: 'gone' },
        },
      });
    }, 50);
  } else if (abortTarget && action === 'stop') {
    write({ hvrpc: 1, status: 200, id: request.id, result: abortedResult });
  } else if (status) {
    write({
      hvrpc: 1,
      id: request.id,
      status: Number(status[1]),
      error: { userMessage: 'Failed to communicate with external process.', debugDescription: `asked for ${action}` },
    });
  } else if (action === 'callbackAround') {
    // A callback whose target looks like a request id must still go to its handler.
    write({ hvrpc: 1, procedure: 'perform', target: request.id, params: { before: true } });
    process.stderr.write('{"hvrpc":1,"id":"' + request.id + '","status":200,"result":"from stderr"}\n');
    write({ hvrpc: 1, status: 200, id: request.id, result: 'answer' });
    write({ hvrpc: 1, procedure: 'perform', target: request.id, params: { after: true } });
  } else if (action === 'garbage') {
    process.stdout.write('this is not json\n');
    write({ hvrpc: 1, status: 200, id: request.id, result: 'after garbage' });
  } else if (action === 'exit3') {
    process.stderr.write('fake engine gives up\n');
    process.exit(3);
  } else {
    write({ hvrpc: 1, status: 200, id: request.id, result: request.params ?? null });
  }
});
