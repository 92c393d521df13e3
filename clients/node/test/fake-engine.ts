// A stand-in engine for what the real one cannot be made to do on demand: it
// answers "perform" with the status named by the action ("status500"), sends
// callbacks around its answers, and writes noise to standard error.

import { createInterface } from 'node:readline';

const write = (message: unknown) => process.stdout.write(JSON.stringify(message) + '\n');

process.stderr.write('fake engine starting\n');
const lines = createInterface({ input: process.stdin });
lines.on('line', (line) => {
  const request = JSON.parse(line) as { id: string; action?: string; params?: unknown };
  const action = request.action ?? '';
  const status = /^status(\d+)$/.exec(action);
  if (status) {
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
