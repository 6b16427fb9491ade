// Real parts for the browser tests and benchmarks: nginx on a free loopback port, the demo
// feed signed with the build's development CA, `hangar --internal-headless` in a home of its
// own, and Debian's Chromium driven by playwright-core.

import { spawn, execFileSync } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

export const sourceDir = process.env.HANGAR_SOURCE_DIR || path.resolve(path.dirname(new URL(import.meta.url).pathname), '../..');
export const buildDir = process.env.HANGAR_BINARY_DIR || path.join(sourceDir, 'build');
// playwright-core is installed by scripts/ui-deps.sh from the lockfile into the build tree.
const modules = process.env.HANGAR_NODE_MODULES || path.join(buildDir, 'tests/ui/node_modules');
export const { chromium } = createRequire(path.join(modules, 'noop.js'))('playwright-core');

const cleanups = [];
export async function cleanUp() {
  while (cleanups.length) await cleanups.pop()().catch(error => console.error('clean-up:', error.message));
}

export function temporaryDir(prefix) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), prefix));
  // HANGAR_UI_KEEP=1 keeps the folders (homes with their logs) for a look after a failure.
  if (!process.env.HANGAR_UI_KEEP) cleanups.push(async () => fs.rmSync(dir, { recursive: true, force: true }));
  return dir;
}

export function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

function waitFor(test, what, timeoutMs) {
  const deadline = Date.now() + timeoutMs;
  return new Promise((resolve, reject) => {
    const poll = async () => {
      let value;
      try {
        value = await test();
      } catch (error) {
        reject(error);
        return;
      }
      if (value) resolve(value);
      else if (Date.now() > deadline) reject(new Error(`Timed out waiting for ${what}`));
      else setTimeout(poll, 100);
    };
    poll();
  });
}

function stopChild(child) {
  return async () => {
    if (child.exitCode !== null || child.signalCode !== null) return;
    child.kill('SIGTERM');
    const ended = new Promise(resolve => child.once('exit', resolve));
    const timer = setTimeout(() => child.kill('SIGKILL'), 15000);
    await ended;
    clearTimeout(timer);
  };
}

// nginx in the foreground serving `root`; `extra` goes inside the server block.
export async function startNginx(root, port, extra = '') {
  const dir = temporaryDir('hangar-nginx-');
  const conf = path.join(dir, 'nginx.conf');
  fs.writeFileSync(conf, `daemon off;
master_process off;
worker_processes 1;
pid ${dir}/nginx.pid;
error_log ${dir}/error.log warn;
events { worker_connections 64; }
http {
  access_log ${dir}/access.log;
  client_body_temp_path ${dir}/body;
  proxy_temp_path ${dir}/proxy;
  fastcgi_temp_path ${dir}/fastcgi;
  uwsgi_temp_path ${dir}/uwsgi;
  scgi_temp_path ${dir}/scgi;
  default_type application/octet-stream;
  server {
    listen 127.0.0.1:${port};
    root ${root};
    ${extra}
  }
}
`);
  const nginx = fs.existsSync('/usr/sbin/nginx') ? '/usr/sbin/nginx' : 'nginx';
  const child = spawn(nginx, ['-c', conf, '-p', dir, '-e', path.join(dir, 'error.log')], { stdio: 'inherit' });
  cleanups.push(stopChild(child));
  await waitFor(() => new Promise(resolve => {
    const socket = net.connect(port, '127.0.0.1', () => { socket.end(); resolve(true); });
    socket.on('error', () => resolve(false));
  }), 'nginx', 20000);
  return { accessLog: () => fs.readFileSync(path.join(dir, 'access.log'), 'utf8') };
}

// The demo tools (packages, patches and the signed feeds) made for `baseUrl`.
export function makeDemoFeed(baseUrl) {
  const state = temporaryDir('hangar-demo-');
  const url = execFileSync('python3', [path.join(sourceDir, 'demo/make-demo-feed.py'), '--build', buildDir,
    '--state', state, '--base-url', baseUrl, '--no-serve'], { encoding: 'utf8' }).trim();
  return { www: path.join(state, 'www'), url };
}

// Signs a feed document with the build's development CA (which the manager built next to it
// trusts) into `out`, dated `mtime` so that nginx announces it as a new version.
export function signFeed(document, out, mtime = new Date()) {
  const source = `${out}.json`;
  fs.writeFileSync(source, JSON.stringify(document));
  const ca = path.join(buildDir, 'feed-dev-ca');
  execFileSync(path.join(buildDir, 'tools/hangar-feed/hangar-feed'), ['sign', '--cert', `${ca}/signer.crt`,
    '--key', `${ca}/signer.key`, source, out]);
  fs.utimesSync(out, mtime, mtime);
}

// A home folder with the XDG folders inside, as each run of the manager gets.
export function makeHome() {
  const home = temporaryDir('hangar-home-');
  const env = { HOME: home, XDG_CONFIG_HOME: `${home}/.config`, XDG_DATA_HOME: `${home}/.local/share`,
    XDG_CACHE_HOME: `${home}/.cache`, XDG_RUNTIME_DIR: `${home}/run`, TMPDIR: `${home}/tmp` };
  for (const dir of Object.values(env)) fs.mkdirSync(dir, { recursive: true, mode: 0o700 });
  return { home, env, settingsFile: `${home}/.local/share/Vantrel/Hangar/.settings.json` };
}

// Starts `hangar` with `args` and resolves with the page address it prints (headless mode).
export async function startHangar(home, feedUrl, args = ['--internal-headless', '--ws-port', '0'], extraEnv = {}) {
  const env = { PATH: process.env.PATH, LANG: 'C.UTF-8', QT_QPA_PLATFORM: 'offscreen',
    VANTREL_HANGAR_FEED_URLS: feedUrl, ...home.env, ...extraEnv };
  const child = spawn(path.join(buildDir, 'src/main/hangar'), args, { env, stdio: ['ignore', 'pipe', 'inherit'] });
  cleanups.push(stopChild(child));
  let output = '';
  child.stdout.on('data', chunk => { output += chunk; });
  const address = await waitFor(() => {
    if (child.exitCode !== null) throw new Error(`hangar ended with ${child.exitCode} before printing its address`);
    return Promise.resolve((output.match(/^Hangar API: (\S+)$/m) || [])[1]);
  }, 'the manager to print its address', 60000);
  return { child, address, logFile: `${home.home}/.local/share/Vantrel/Hangar/logs/log.txt` };
}

export async function launchBrowser() {
  const profile = temporaryDir('hangar-chromium-');
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: process.env.HANGAR_CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
    viewport: { width: 480, height: 760 },
  });
  cleanups.push(() => context.close());
  return context;
}

export function screenshotDir() {
  const dir = path.join(buildDir, 'tests/ui/screenshots');
  fs.mkdirSync(dir, { recursive: true });
  return dir;
}
