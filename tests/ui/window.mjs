// The native window under a virtual X server (run through xvfb-run): the manager starts in
// window mode with the demo feed, its page announces itself with "apiReady" over the
// QWebChannel bridge and draws the model it is sent. The page is reached through the
// engine's remote-debugging port; the local API the window mode also serves answers too.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { chromium, cleanUp, freePort, makeDemoFeed, makeHome, screenshotDir, startHangar, startNginx }
  from './harness.mjs';

function get(url) {
  return new Promise((resolve, reject) => {
    http.get(url, response => {
      let body = '';
      response.on('data', chunk => { body += chunk; });
      response.on('end', () => resolve({ status: response.statusCode, body }));
    }).on('error', reject);
  });
}

async function main() {
  assert.ok(process.env.DISPLAY, 'run under xvfb-run');
  const port = await freePort();
  const feed = makeDemoFeed(`http://127.0.0.1:${port}`);
  await startNginx(feed.www, port);
  const home = makeHome();
  const debugPort = await freePort();
  const hangar = await startHangar(home, feed.url, ['--window-mode'], {
    QT_QPA_PLATFORM: 'xcb', DISPLAY: process.env.DISPLAY,
    QTWEBENGINE_REMOTE_DEBUGGING: `127.0.0.1:${debugPort}`,
  });

  // The local API is served beside the window: the same page and token as headless mode.
  const served = await get(hangar.address);
  assert.equal(served.status, 200);
  assert.match(served.body, /<title>Hangar<\/title>/);

  const browser = await connect(`http://127.0.0.1:${debugPort}`);
  const page = await findPage(browser);
  page.setDefaultTimeout(90000);
  await page.locator('[aria-label="Available tools"] .row[aria-label="Quill"]').waitFor();
  assert.equal(await page.evaluate(() => location.href), 'hangar://ui/index.html');
  const log = fs.readFileSync(hangar.logFile, 'utf8');
  assert.match(log, /apiReady/);
  await page.screenshot({ path: path.join(screenshotDir(), 'window.png') });
  await browser.close().catch(() => {});
}

async function connect(endpoint) {
  const deadline = Date.now() + 60000;
  for (;;) {
    try {
      return await chromium.connectOverCDP(endpoint);
    } catch (error) {
      if (Date.now() > deadline) throw error;
      await new Promise(resolve => setTimeout(resolve, 500));
    }
  }
}

async function findPage(browser) {
  const deadline = Date.now() + 60000;
  for (;;) {
    for (const context of browser.contexts())
      for (const page of context.pages()) if (page.url().startsWith('hangar://ui/')) return page;
    if (Date.now() > deadline) throw new Error('The window never showed its page');
    await new Promise(resolve => setTimeout(resolve, 500));
  }
}

main().then(cleanUp, async error => {
  console.error(error);
  await cleanUp();
  process.exit(1);
});
