// The management page in headless Chromium against a tavrel with a temporary home on loopback, every kind
// of button pressed as a person would.   TAVREL_BINARY=PATH/TO/tavrel node --test page.test.mjs
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import dgram from 'node:dgram';
import fs from 'node:fs';
import http from 'node:http';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const tavrel = process.argv[2] || process.env.TAVREL_BINARY;

// 127.0.0.x is never swept; .9 before .10 tells a numeric IP sort from a textual one. echo has no MAC
// (no WOL button); .44 is known to the ARP table only.
const computers = [
  ['delta', '127.0.0.10', 'AA-00-00-00-00-10'],
  ['alpha', '127.0.0.9', '00-1A-2B-3C-4D-09'],
  ['charlie', '127.0.0.21', '11-22-33-44-55-21'],
  ['bravo', '127.0.0.3', 'CC-00-00-00-00-03'],
  ['echo', '127.0.0.30', ''],
];
const arpOnly = ['', '127.0.0.44', '55-00-00-00-00-44'];

let home, port, proc, context, page, exited, hub;
const xap = []; // what the program sends on xAP: the test holds the xAP port as a hub would
const problems = []; // failed requests, HTTP errors and script errors seen by the browser

const freePort = () =>
  new Promise((resolve) => {
    const s = net.createServer().listen(0, '127.0.0.1', () => s.close(resolve.bind(null, s.address().port)));
  });

async function until(what, seconds, probe) {
  for (const deadline = Date.now() + seconds * 1000; Date.now() < deadline; ) {
    if (await probe().catch(() => false)) return;
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error(`${what}: not within ${seconds} s`);
}

// Config/tavrel.ini as { SECTION: { KEY: value } }, names upper-cased.
function readIni() {
  const ini = {};
  let section;
  for (const line of fs.readFileSync(path.join(home, 'Config', 'tavrel.ini'), 'latin1').split(/\r?\n/)) {
    if (/^\[.*\]$/.test(line)) ini[(section = line.slice(1, -1).toUpperCase())] ??= {};
    else if (section && line.indexOf('=') > 0) ini[section][line.split('=')[0].toUpperCase()] = line.split('=')[1];
  }
  return ini;
}

// Our data rows top to bottom: { key, name, ip (last part, as ".9"), mac, led, buttons }.
const readRows = async () =>
  (
    await page.$$eval("input[type='checkbox'][name^='R']", (boxes) =>
      boxes.map((box) => {
        const cells = [...box.closest('tr').children];
        return {
          key: box.name.slice(1),
          name: cells[2].querySelector('input').value,
          ip: cells[3].textContent.replace('127.0.0.', '.'),
          mac: cells[4].textContent,
          led: cells[1].querySelector('img')?.getAttribute('src') ?? '',
          buttons: cells.slice(5).map((c) => c.querySelector('input')?.value ?? '').join(' '),
        };
      }),
    )
  ).filter((r) => [...computers, arpOnly].some((c) => c[1].endsWith(r.ip)));
const keyOf = async (ip) => (await readRows()).find((r) => r.ip === ip).key;

// Presses a submit button and waits for the page the post brings back.
async function press(name) {
  const [response] = await Promise.all([
    page.waitForResponse((r) => r.request().method() === 'POST'),
    page.waitForNavigation({ waitUntil: 'load' }),
    page.click(`input[type='submit'][name='${name}']`),
  ]);
  assert.equal(response.status(), 200, name);
  return (await readRows()).map((r) => r.ip);
}

before(async () => {
  home = fs.mkdtempSync(path.join(os.tmpdir(), 'tavrel-browser-'));
  fs.mkdirSync(path.join(home, 'Config'));
  port = await freePort();
  const config = (name, lines) => fs.writeFileSync(path.join(home, 'Config', name), lines.join('\r\n') + '\r\n');
  hub = dgram.createSocket('udp4').on('message', (m) => xap.push(m.toString('latin1')));
  await new Promise((resolve) => hub.bind(0, '127.0.0.1', resolve));
  config('zelXap.ini', ['[Interface]', 'BroadcastAddress=127.0.0.1', `Port=${hub.address().port}`]);
  config('tavrel.ini', [
    '[WOL]', `HTTPPort=${port}`, 'Subnet=127.0.0', 'ScanMethod=native', '[Computer]',
    ...computers.map(([name, ip]) => `${name}=${ip}`), '[ARP]',
    ...[...computers, arpOnly].filter((c) => c[2]).map(([, ip, mac]) => `${ip}=${mac}`),
  ]);
  proc = spawn(tavrel, ['--home', home, '--no-tray'], { stdio: 'ignore' });
  exited = new Promise((resolve) => proc.on('exit', (code, signal) => resolve({ code, signal })));
  await until('the page answers', 15, async () => (await fetch(`http://127.0.0.1:${port}/wol`)).ok);
  context = await chromium.launchPersistentContext(fs.mkdtempSync(path.join(home, 'profile-')), {
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    viewport: { width: 900, height: 420 },
    args: ['--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking', '--disable-sync'],
  });
  page = context.pages()[0] ?? (await context.newPage());
  page.on('requestfailed', (r) => problems.push(`failed: ${r.url()}`));
  page.on('response', (r) => r.status() >= 400 && !r.url().endsWith('/favicon.ico') && problems.push(r.url()));
  page.on('pageerror', (e) => problems.push(`script error: ${e.message}`));
});

after(async () => {
  await context?.close().catch(() => {});
  if (proc?.exitCode === null && proc.signalCode === null) proc.kill('SIGKILL');
  hub?.close();
  if (home) fs.rmSync(home, { recursive: true, force: true });
});

test('the page shows every computer, its images and style sheet; the web root leads there', async () => {
  assert.equal((await page.goto(`http://127.0.0.1:${port}/wol`, { waitUntil: 'load' })).status(), 200);
  assert.match(await page.title(), /^Tavrel\s+V\d+\.\d+\.\d+$/);
  assert.equal(await page.inputValue("input[name='subnet']"), '127.0.0');
  const shown = (await readRows()).map((r) => [r.name, r.ip, r.mac, r.buttons, r.led]);
  const expected = [...computers, arpOnly].map(([name, ip, mac]) => [
    name, ip.replace('127.0.0.', '.'), mac,
    `${mac ? 'WOL' : ''} ${name ? 'Reboot Shutdown' : ' '}`, name ? '\\led-Green.gif' : '',
  ]);
  assert.deepEqual(shown.sort(), expected.sort());
  const images = await page.$$eval('img', (imgs) => imgs.map((i) => i.complete && i.naturalWidth));
  assert.ok(images.length >= computers.length && images.every((width) => width === 13), `${images}`);
  const header = page.locator('td.TABLEHEADER').first();
  assert.equal(await header.evaluate((td) => getComputedStyle(td).backgroundColor), 'rgb(99, 99, 156)');
  // With no home-automation server named, the web root leads to the page.
  await page.goto(`http://127.0.0.1:${port}/`, { waitUntil: 'load' });
  assert.equal(page.url(), `http://127.0.0.1:${port}/wol`);
});

test('a form on another site cannot shut a computer down; the page itself can', async () => {
  const key = await keyOf('.9');
  const site = http.createServer((req, res) =>
    res.writeHead(200, { 'Content-Type': 'text/html' }).end(`<form method='post' action='http://127.0.0.1:${port}/wol'><input name='clientinput' value='yes'>` +
      `<input name='subnet' value='1.2.3'><input name='Shutdown${key}' value='Shutdown'></form>` +
      '<script>document.forms[0].submit()</script>'));
  await new Promise((resolve) => site.listen(0, '127.0.0.1', resolve));
  const ini = path.join(home, 'Config', 'tavrel.ini');
  const before = fs.readFileSync(ini);
  const seen = problems.length;
  try {
    const [refused] = await Promise.all([
      page.waitForResponse((r) => r.request().method() === 'POST'),
      page.goto(`http://localhost:${site.address().port}/`),
    ]);
    assert.equal(refused.status(), 403);
    assert.deepEqual(fs.readFileSync(ini), before);
    problems.splice(seen); // the refusal, as intended
  } finally {
    site.close();
  }
  await page.goto(`http://127.0.0.1:${port}/wol`, { waitUntil: 'load' });
  await press(`Shutdown${key}`);
  const control = () => xap.filter((m) => /\nComputer\.Control\n\{\nAction=Shutdown\n/i.test(m));
  await until("the page's own Shutdown on xAP", 5, async () => control().length > 0);
  // Sent as the request was served, so the refused one, served first, would be on the wire before it.
  assert.equal(control().length, 1);
  assert.match(control()[0], /\nclass=Computer\.Process\nsource=[^\n]*\ntarget=\*\.\*\.alpha\n/i);
});

test('the column buttons sort the rows and a second press turns the order round', async () => {
  const byName = ['.44', '.9', '.3', '.21', '.10', '.30'];
  const steps = [
    ['Name', 'ASC', byName],
    ['IP', 'ASC', ['.3', '.9', '.10', '.21', '.30', '.44']],
    ['MAC', 'ASC', ['.30', '.9', '.21', '.44', '.10', '.3']],
    ['MAC', 'DESC', ['.3', '.10', '.44', '.21', '.9', '.30']],
    ['Name', 'DESC', [...byName].reverse()], // another column keeps the direction
    ['Name', 'ASC', byName],
  ];
  for (const [button, direction, expected] of steps) {
    assert.deepEqual(await press(button), expected, `${button} ${direction}`);
    assert.deepEqual([readIni().WOL.SORT, readIni().WOL.SORTDIR ?? 'ASC'], [button, direction]);
  }
});

test('Save Changes stores a new name and a ticked box removes a computer', async () => {
  await page.fill(`input[name='Name${await keyOf('.10')}']`, 'office');
  await press('Save');
  assert.equal((await readRows()).find((r) => r.ip === '.10').name, 'OFFICE');
  assert.deepEqual([readIni().COMPUTER.OFFICE, readIni().COMPUTER.ALPHA], ['127.0.0.10', '127.0.0.9']);

  await page.check(`input[name='R${await keyOf('.3')}']`);
  assert.deepEqual(await press('Save'), ['.44', '.9', '.21', '.30', '.10']);
  const ini = readIni();
  assert.deepEqual([ini.COMPUTER.BRAVO, ini.ARP['127.0.0.3'], ini.COMPUTER.DELTA], [undefined, undefined, undefined]);
  assert.equal(ini.ARP['127.0.0.44'], arpOnly[2]);
  assert.equal(await page.locator("input[type='checkbox']:checked").count(), 0);
});

test('Query LAN brings the page back, and a sweep that finds nothing keeps every MAC', async () => {
  const shown = async () => (await readRows()).map((r) => r.ip + r.mac + r.buttons);
  const before = await shown();
  await press('QueryLAN');
  await until('Query LAN offered again', 15, async () => {
    await page.goto(`http://127.0.0.1:${port}/wol`, { waitUntil: 'load' });
    return (await page.locator("input[name='QueryLAN']").count()) === 1;
  });
  assert.deepEqual(await shown(), before);
  assert.deepEqual([readIni().ARP['127.0.0.21'], readIni().ARP['127.0.0.44']], [computers[2][2], arpOnly[2]]);
});

test('the browser met no broken request and the program ends cleanly', async () => {
  assert.deepEqual(problems, []);
  proc.kill('SIGTERM');
  assert.deepEqual(await Promise.race([exited, new Promise((r) => setTimeout(r, 10000, 'timeout'))]), {
    code: 0,
    signal: null,
  });
  const log = path.join(home, 'Data', 'tavrel.txt');
  assert.doesNotMatch(fs.existsSync(log) ? fs.readFileSync(log, 'latin1') : '', /MainPage|RemoteASP|SendWOL/);
});
