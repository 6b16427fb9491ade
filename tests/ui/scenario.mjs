// The page in a real browser against the real manager: a person's visit from the first
// look to a changed setting. nginx serves the signed demo feed; every package download is
// throttled so that progress can be watched, and Beacon's so much that it can be cancelled.

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { cleanUp, freePort, launchBrowser, makeDemoFeed, makeHome, screenshotDir, signFeed, startHangar, startNginx }
  from './harness.mjs';

const STEP_MS = 90000;
// Kept for the failure screenshot.
let page;

async function main() {
  const port = await freePort();
  const feed = makeDemoFeed(`http://127.0.0.1:${port}`);
  // At first the feed offers Quill 1.0 only; its later builds are published during the visit.
  const rootFeed = path.join(feed.www, 'feeds/demo-feed.feed.xz.signed');
  const fullFeed = JSON.parse(fs.readFileSync(path.join(feed.www, 'feeds/demo-feed.json'), 'utf8'));
  const quillBuilds = entry => entry.id === 'demo-quill' && entry.build !== '101.10';
  signFeed({ ...fullFeed, entries: fullFeed.entries.filter(entry => !quillBuilds(entry)) }, rootFeed,
    new Date(Date.now() - 3600 * 1000));
  const nginx = await startNginx(feed.www, port, `
    location /packages/ { limit_rate 100; }
    location /packages/Beacon { limit_rate 40; }`);
  const home = makeHome();
  writeRecentProjects(home.home);
  const hangar = await startHangar(home, feed.url);
  const shots = screenshotDir();

  const context = await launchBrowser();
  page = await context.newPage();
  page.setDefaultTimeout(STEP_MS);
  const pageErrors = [];
  page.on('pageerror', error => pageErrors.push(error.message));
  await page.goto(hangar.address);

  const available = name => page.locator(`[aria-label="Available tools"] .row[aria-label="${name}"]`);
  const installed = name => page.locator(`[aria-label="Installed tools"] .row[aria-label="${name}"]`);
  const menu = async (row, item) => {
    await row.getByRole('button', { name: /^More actions/ }).click();
    await page.getByRole('menuitem', { name: item }).click();
  };

  // First look: the feed's tools, nothing installed yet.
  await available('Quill').waitFor();
  assert.equal(await available('Sift').count(), 1);
  assert.equal(await page.locator('.empty', { hasText: 'No tools installed yet' }).isVisible(), true);
  await page.screenshot({ path: path.join(shots, 'tools-first-visit.png') });

  // The version picker lists every build with its quality; Escape closes it.
  await menu(available('Sift'), 'Choose a version…');
  await page.getByRole('dialog').locator('.version', { hasText: 'Beta' }).waitFor();
  await page.screenshot({ path: path.join(shots, 'version-picker.png') });
  await page.keyboard.press('Escape');
  await page.getByRole('dialog').waitFor({ state: 'detached' });

  // Install Quill by clicking; the progress bar moves and goes away.
  await available('Quill').getByRole('button', { name: 'Install' }).click();
  const seen = await watchProgress(page);
  assert.ok(seen.length >= 2 && seen[seen.length - 1] > seen[0], `progress moved: ${seen}`);
  await installed('Quill').locator('.details', { hasText: /^1\.0/ }).waitFor();
  await page.locator('#progress').waitFor({ state: 'hidden' });

  // Quill 1.1 is published; "Check for updates now" brings it to the page.
  signFeed(fullFeed, rootFeed, new Date());
  await page.getByRole('tab', { name: 'Settings' }).click();
  await page.getByRole('button', { name: 'Check for updates now' }).click();
  await page.getByRole('tab', { name: /^Tools/ }).click();

  // An update is offered (as a patch), taken, then rolled back.
  const update = installed('Quill').getByRole('button', { name: /^Update/ });
  await update.waitFor();
  assert.match(await update.textContent(), /patch/);
  assert.equal(await page.locator('#update-count').textContent(), '1');
  await page.screenshot({ path: path.join(shots, 'tools-update-offered.png') });
  await update.click();
  await installed('Quill').locator('.details', { hasText: /^1\.1/ }).waitFor();
  await menu(installed('Quill'), /^Roll back to 1\.0/);
  await installed('Quill').locator('.details', { hasText: /^1\.0/ }).waitFor();

  // A slow download is cancelled from its row: nothing is installed and Install is back.
  await available('Beacon').getByRole('button', { name: 'Install' }).click();
  const cancel = available('Beacon').getByRole('button', { name: 'Cancel' });
  await cancel.waitFor();
  await page.screenshot({ path: path.join(shots, 'tools-busy.png') });
  await cancel.click();
  await available('Beacon').getByRole('button', { name: 'Install' }).waitFor();
  // The failed request's answer is shown in the row, and goes when dismissed.
  const error = available('Beacon').getByRole('alert');
  await error.waitFor();
  await available('Beacon').getByRole('button', { name: 'Dismiss error' }).click();
  await error.waitFor({ state: 'detached' });
  assert.equal(await installed('Beacon').count(), 0);
  assert.ok(!fs.readdirSync(`${home.home}`).some(name => /beacon/i.test(name)));

  // Projects: the recent projects of the installed Quill, found by search; "/" focuses it.
  await page.keyboard.press('/');
  const search = page.getByRole('searchbox', { name: 'Search projects' });
  await page.locator('[aria-label="Projects"] .row').first().waitFor();
  assert.equal(await page.locator('[aria-label="Projects"] .row').count(), 2);
  await page.keyboard.type('beta');
  await page.waitForFunction(() => document.querySelectorAll('[aria-label="Projects"] .row').length === 1);
  assert.equal(await search.inputValue(), 'beta');
  await page.screenshot({ path: path.join(shots, 'projects-search.png') });

  // A setting changed on the page lands in the settings file.
  await page.getByRole('tab', { name: 'Settings' }).click();
  const depth = page.getByLabel('Builds kept for rolling back');
  await depth.fill('3');
  await depth.press('Tab');
  await waitForFile(home.settingsFile, json => json.channel_rollback_max_history === 3);
  await page.screenshot({ path: path.join(shots, 'settings.png') });

  // Uninstall from the row menu, confirmed in a dialog.
  await page.getByRole('tab', { name: /^Tools/ }).click();
  await menu(installed('Quill'), 'Uninstall…');
  await page.getByRole('dialog').getByRole('button', { name: 'Uninstall' }).click();
  await installed('Quill').waitFor({ state: 'detached' });
  await page.locator('.empty', { hasText: 'No tools installed yet' }).waitFor();

  assert.deepEqual(pageErrors, []);
  assert.ok(/packages\/Beacon/.test(nginx.accessLog()));
}

// Samples the top progress bar until it goes away; returns the values seen.
async function watchProgress(page) {
  const bar = page.locator('#progress [role="progressbar"]');
  await bar.waitFor();
  const seen = [];
  while (await bar.isVisible()) {
    const value = Number(await bar.getAttribute('aria-valuenow').catch(() => NaN));
    if (!Number.isNaN(value) && value !== seen[seen.length - 1]) seen.push(value);
    await page.waitForTimeout(200);
  }
  return seen;
}

async function waitForFile(file, test) {
  const deadline = Date.now() + STEP_MS;
  for (;;) {
    try {
      if (test(JSON.parse(fs.readFileSync(file, 'utf8')))) return;
    } catch (error) { /* not written yet */ }
    if (Date.now() > deadline) throw new Error(`${file} never had the expected content`);
    await new Promise(resolve => setTimeout(resolve, 200));
  }
}

// Quill's recent-projects list, where an installed Quill keeps it.
function writeRecentProjects(home) {
  const options = `${home}/.config/Vantrel/Quill1.0/options`;
  fs.mkdirSync(options, { recursive: true });
  const paths = ['alpha-service', 'beta-client'].map(name => {
    // An empty folder is no project.
    fs.mkdirSync(`${home}/projects/${name}`, { recursive: true });
    fs.writeFileSync(`${home}/projects/${name}/README`, name);
    return `$USER_HOME$/projects/${name}`;
  });
  fs.writeFileSync(`${options}/recentProjects.xml`, `<application><component name="RecentProjectsManager">
  <option name="recentPaths"><list>${paths.map(p => `<option value="${p}" />`).join('')}</list></option>
</component></application>`);
}

main().then(cleanUp, async error => {
  console.error(error);
  if (page) await page.screenshot({ path: path.join(screenshotDir(), 'failure.png') }).catch(() => {});
  await cleanUp();
  process.exit(1);
});
