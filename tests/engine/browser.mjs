// A headless Chromium that tests drive: each line on standard input is a call of a function of
// browser_page.js, {"call": NAME, "with": ARGUMENT}; each answer is one line, {"result": …} or {"error": …}.
// The two calls in `here` are answered in this process instead.
import { createRequire } from 'node:module';
import { createServer } from 'node:http';
import { connect as connectTcp, createServer as createTcpServer } from 'node:net';
import { createInterface } from 'node:readline';
import { readFileSync } from 'node:fs';

const directory = new URL('.', import.meta.url);
const require = createRequire(new URL('../e2e/package.json', directory));
const { chromium } = require('playwright-core');

// A page of loopback's may use what a secure page may.
const server = createServer((request, response) => {
  response.setHeader('Content-Type', 'text/html');
  response.end('<!doctype html><title>guest</title>');
});
await new Promise((listening) => server.listen(0, '127.0.0.1', listening));

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: ['--no-sandbox', '--allow-loopback-in-peer-connection', '--autoplay-policy=no-user-gesture-required',
    '--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream'],
});
const page = await browser.newPage();
page.on('console', (message) => console.error('page:', message.text()));
await page.goto(`http://127.0.0.1:${server.address().port}/`);
await page.addScriptTag({ content: readFileSync(new URL('browser_page.js', directory), 'utf8') });

// A road to a server that can be cut, and closed for good.
const wires = new Set();
let road;
const here = {
  openRoad: async ({ to }) => {
    road = createTcpServer((near) => {
      const far = connectTcp(Number(to.split(':').pop()), '127.0.0.1');
      for (const wire of [near, far]) {
        wires.add(wire);
        wire.on('error', () => {}).on('close', () => { wires.delete(wire); near.destroy(); far.destroy(); });
      }
      near.pipe(far).pipe(near);
    });
    await new Promise((listening) => road.listen(0, '127.0.0.1', listening));
    return `ws://127.0.0.1:${road.address().port}`;
  },
  cutRoad: async ({ forGood }) => {
    if (forGood) road.close();
    wires.forEach((wire) => wire.destroy());
  },
};

const answer = (line) => process.stdout.write(JSON.stringify(line) + '\n');
answer({ result: 'ready' });
for await (const line of createInterface({ input: process.stdin })) {
  const { call, with: argument } = JSON.parse(line);
  try {
    const result = here[call] ? await here[call](argument)
      : await page.evaluate(([name, value]) => window[name](value), [call, argument]);
    answer({ result: result ?? null });
  } catch (error) {
    answer({ error: String(error.message) });
  }
}
await browser.close();
process.exit();
