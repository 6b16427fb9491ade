// The native window under a virtual X server (run through xvfb-run): the manager starts in
// window mode with the demo feed, its page announces itself with "apiReady" over the
// QWebChannel bridge and draws the model it is sent. The page is reached through the
// engine's remote-debugging port with the plain DevTools protocol (the engine is Chromium 87,
// too old for playwright's own connection; run with node --experimental-websocket). The
// local API that window mode also serves answers too.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { cleanUp, freePort, makeDemoFeed, makeHome, screenshotDir, startHangar, startNginx } from './harness.mjs';

function get(url) {
  return new Promise((resolve, reject) => {
    http.get(url, response => {
      let body = '';
      response.on('data', chunk => { body += chunk; });
      response.on('end', () => resolve({ status: response.statusCode, body }));
    }).on('error', reject);
  });
}

async function until(test, what, timeoutMs = 90000) {
  const deadline = Date.now() + timeoutMs;
  while (!(await test().catch(() => false))) {
    if (Date.now() > deadline) throw new Error(`Timed out waiting for ${what}`);
    await new Promise(resolve => setTimeout(resolve, 300));
  }
}

// The window's page as a DevTools target: evaluate() an expression, take a screenshot.
async function pageOverDevTools(port) {
  let target;
  await until(async () => {
    const targets = JSON.parse((await get(`http://127.0.0.1:${port}/json`)).body);
    target = targets.find(candidate => candidate.url.startsWith('hangar://ui/'));
    return Boolean(target);
  }, 'the window to show its page');
  const socket = new WebSocket(target.webSocketDebuggerUrl);
  await new Promise((resolve, reject) => { socket.onopen = resolve; socket.onerror = reject; });
  let lastId = 0;
  const waiting = new Map();
  socket.onmessage = event => {
    const message = JSON.parse(event.data);
    if (waiting.has(message.id)) waiting.get(message.id)(message);
    waiting.delete(message.id);
  };
  const call = (method, params = {}) => new Promise(resolve => {
    waiting.set(++lastId, resolve);
    socket.send(JSON.stringify({ id: lastId, method, params }));
  });
  return {
    evaluate: async expression => (await call('Runtime.evaluate', { expression, returnByValue: true })).result.result.value,
    screenshot: async () => Buffer.from((await call('Page.captureScreenshot', { format: 'png' })).result.data, 'base64'),
    close: () => socket.close(),
  };
}

async function main() {
  assert.ok(process.env.DISPLAY, 'run under xvfb-run');
  const port = await freePort();
  const feed = makeDemoFeed(`http://127.0.0.1:${port}`);
  await startNginx(feed.www, port);
  const home = makeHome();
  const debugPort = await freePort();
  const hangar = await startHangar(home, feed.url, ['--window-mode'], {
    QT_QPA_PLATFORM: 'xcb', DISPLAY: process.env.DISPLAY, XAUTHORITY: process.env.XAUTHORITY || '',
    QTWEBENGINE_REMOTE_DEBUGGING: `127.0.0.1:${debugPort}`,
  });

  // The local API is served beside the window: the same page and token as headless mode.
  const served = await get(hangar.address);
  assert.equal(served.status, 200);
  assert.match(served.body, /<title>Hangar<\/title>/);

  const page = await pageOverDevTools(debugPort);
  // The model reached the page: the feed's tools are drawn in the list.
  const quill = '[aria-label="Available tools"] .row[aria-label="Quill"]';
  await until(async () => (await page.evaluate(`document.querySelectorAll('${quill}').length`)) === 1,
    'the model drawn in the window');
  assert.equal(await page.evaluate('location.href'), 'hangar://ui/index.html');
  assert.match(fs.readFileSync(hangar.logFile, 'utf8'), /apiReady/);
  fs.writeFileSync(path.join(screenshotDir(), 'window.png'), await page.screenshot());
  page.close();
}

main().then(cleanUp, async error => {
  console.error(error);
  await cleanUp();
  process.exit(1);
});
