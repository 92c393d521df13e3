// The usage example of the README runs as written, as a host would run it.

import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { describe, it } from 'node:test';
import { promisify } from 'node:util';

import { packageRoot, syntheticEnv } from './support.js';

/** The first ```js block under the README's Node client heading. */
export function readmeExample(): string {
  const readme = readFileSync(path.join(packageRoot, '..', '..', 'README.md'), 'utf8');
  const section = readme.split(/^## The Node client/m)[1];
  assert.ok(section, 'README.md has no "## The Node client" section');
  const example = /^```js\n([\s\S]*?)^```$/m.exec(section)?.[1];
  assert.ok(example, 'the Node client section of README.md has no ```js block');
  return example;
}

describe('the README usage example', () => {
  it('runs verbatim against the engine', async () => {
    // Inside the package, so that its import of the package's own name resolves.
    const folder = path.join(packageRoot, '.test-tmp');
    mkdirSync(folder, { recursive: true });
    const script = path.join(folder, 'readme-example.mjs');
    writeFileSync(script, readmeExample());
    const { stdout, stderr } = await promisify(execFile)(process.execPath, [script], {
      env: syntheticEnv(),
      timeout: 20000,
    });
    const bundle = /^bundle: (\S+) /m.exec(stdout)?.[1];
    assert.ok(bundle, `no bundle line in:\n${stdout}\n${stderr}`);
    assert.ok(existsSync(path.join(bundle, 'orvane.json')));
    assert.match(stdout, /^segment written: .*\.m4s$/m);
    assert.match(stdout, /^bundle: \S+ \[ '[^']+' \] [\d.]+ s$/m);
  });
});
