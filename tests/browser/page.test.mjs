// The management page in a real browser: a tavrel with a temporary home on loopback, the page at /wol in
// headless Chromium, and every kind of button on it pressed as a person would.
//   TAVREL_BINARY=PATH/TO/tavrel node --test page.test.mjs      (or: node page.test.mjs PATH/TO/tavrel)
// The wake packet is caught on 127.0.0.255:7 only as root (a privileged port); run.sh also puts the whole
// run into a network namespace of its own then, so nothing can leave the machine.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import dgram from 'node:dgram';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const here = path.dirname(fileURLToPath(import.meta.url));
const tavrel = process.argv[2] || process.env.TAVREL_BINARY;
const chromiumPath = process.env.CHROMIUM || '/usr/bin/chromium';
const outDir = path.join(here, 'out');
const isRoot = process.getuid?.() === 0;

// The computers the home starts with: names with the IPs (127.0.0.x, never swept) and MACs. Each sort
// column gives another order; .9 before .10 tells a numeric IP sort from a textual one.
const computers = [
  { name: 'delta', ip: '127.0.0.10', mac: 'AA-00-00-00-00-10' },
  { name: 'alpha', ip: '127.0.0.9', mac: '00-1A-2B-3C-4D-09' },
  { name: 'charlie', ip: '127.0.0.21', mac: '11-22-33-44-55-21' },
  { name: 'bravo', ip: '127.0.0.3', mac: 'CC-00-00-00-00-03' },
  { name: 'echo', ip: '127.0.0.30', mac: '' }, // no MAC known: no WOL button
];
const arpOnly = { name: '', ip: '127.0.0.44', mac: '55-00-00-00-00-44' }; // seen by a sweep, never named

let home, port, proc, context, page, exitPromise;
const problems = []; // failed requests, HTTP errors and script errors seen by the browser

const freePort = () =>
  new Promise((resolve, reject) => {
    const server = net.createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port: p } = server.address();
      server.close(() => resolve(p));
    });
  });

async function until(what, seconds, probe) {
  const deadline = Date.now() + seconds * 1000;
  for (;;) {
    const result = await probe().catch(() => undefined);
    if (result) return result;
    if (Date.now() > deadline) throw new Error(`${what}: not within ${seconds} s`);
    await new Promise((r) => setTimeout(r, 50));
  }
}

// Config/tavrel.ini as { SECTION: { KEY: value } }, section and key names upper-cased.
function readIni() {
  const ini = {};
  let section = null;
  for (const line of fs.readFileSync(path.join(home, 'Config', 'tavrel.ini'), 'latin1').split(/\r\n|\r|\n/)) {
    const header = /^\[(.*)\]$/.exec(line);
    if (header) ini[(section = header[1].toUpperCase())] ??= {};
    else if (section && line.indexOf('=') > 0) {
      ini[section][line.slice(0, line.indexOf('=')).toUpperCase()] = line.slice(line.indexOf('=') + 1);
    }
  }
  return ini;
}

// The data rows as the browser shows them, top to bottom.
const readRows = () =>
  page.$$eval("input[type='checkbox'][name^='R']", (boxes) =>
    boxes.map((box) => {
      const cells = [...box.closest('tr').children];
      const led = cells[1].querySelector('img');
      return {
        key: box.name.slice(1),
        className: cells[0].className,
        led: led ? led.getAttribute('src') : '',
        age: cells[1].textContent,
        name: cells[2].querySelector("input[type='text']").value,
        ip: cells[3].textContent,
        mac: cells[4].textContent,
        buttons: cells.slice(5).map((c) => c.querySelector("input[type='submit']")?.value ?? ''),
      };
    }),
  );

const ours = (rows) => rows.filter((r) => [...computers, arpOnly].some((c) => c.ip === r.ip));
const ips = (rows) => ours(rows).map((r) => r.ip.replace('127.0.0.', '.'));

// The text each column sorts on, compared without regard to case; the IP padded to three digits a part.
const sortText = {
  Name: (r) => r.name,
  IP: (r) => r.ip.split('.').map((p) => ('000' + p).slice(-3)).join('.'),
  MAC: (r) => r.mac,
  Online: (r) => (r.led ? `<img src='${r.led}'>&nbsp;${r.age.replace(/^\u00a0/, '')}` : ''),
};
function assertSorted(rows, column, descending) {
  const text = rows.map((r) => sortText[column](r).toLowerCase());
  for (let i = 1; i < text.length; i++) {
    const ordered = descending ? text[i - 1] >= text[i] : text[i - 1] <= text[i];
    assert.ok(ordered, `${column} ${descending ? 'DESC' : 'ASC'}: row ${i} "${text[i]}" after "${text[i - 1]}"`);
  }
}

// Presses a submit button of the page's form and waits for the page the post brings back.
async function press(selector) {
  const [response] = await Promise.all([
    page.waitForResponse((r) => r.request().method() === 'POST' && new URL(r.url()).pathname === '/wol'),
    page.waitForNavigation({ waitUntil: 'load' }),
    page.click(selector),
  ]);
  assert.equal(response.status(), 200, `POST after ${selector}`);
  return readRows();
}
const rowOf = async (ip) => (await readRows()).find((r) => r.ip === ip);

before(async () => {
  assert.ok(tavrel && fs.existsSync(tavrel), 'give the tavrel binary as argument or in TAVREL_BINARY');
  home = fs.mkdtempSync(path.join(os.tmpdir(), 'tavrel-browser-'));
  fs.mkdirSync(path.join(home, 'Config'));
  fs.mkdirSync(outDir, { recursive: true });
  for (const old of fs.readdirSync(outDir)) fs.rmSync(path.join(outDir, old), { recursive: true, force: true });
  port = await freePort();
  const xapPort = await freePort();
  fs.writeFileSync(
    path.join(home, 'Config', 'zelXap.ini'),
    `[Interface]\r\nBroadcastAddress=127.0.0.1\r\nPort=${xapPort}\r\n`,
  );
  const lines = ['[WOL]', `HTTPPort=${port}`, 'Subnet=127.0.0', 'ScanMethod=native', '[Computer]'];
  for (const c of computers) lines.push(`${c.name}=${c.ip}`);
  lines.push('[ARP]');
  for (const c of [...computers, arpOnly]) if (c.mac) lines.push(`${c.ip}=${c.mac}`);
  fs.writeFileSync(path.join(home, 'Config', 'tavrel.ini'), lines.join('\r\n') + '\r\n');

  const log = fs.openSync(path.join(home, 'stdout.txt'), 'w');
  proc = spawn(tavrel, ['--home', home, '--no-tray'], { stdio: ['ignore', log, log] });
  exitPromise = new Promise((resolve) => proc.on('exit', (code, signal) => resolve({ code, signal })));
  await until('the page answers', 15, async () => (await fetch(`http://127.0.0.1:${port}/wol`)).ok);

  context = await chromium.launchPersistentContext(fs.mkdtempSync(path.join(home, 'profile-')), {
    executablePath: chromiumPath,
    headless: true,
    viewport: { width: 900, height: 420 },
    args: [
      '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
    ],
  });
  page = context.pages()[0] ?? (await context.newPage());
  page.on('requestfailed', (r) => problems.push(`failed: ${r.url()} ${r.failure()?.errorText}`));
  page.on('response', (r) => {
    if (r.status() >= 400 && !r.url().endsWith('/favicon.ico')) problems.push(`${r.status()}: ${r.url()}`);
  });
  page.on('pageerror', (e) => problems.push(`script error: ${e.message}`));
});

after(async () => {
  await context?.close().catch(() => {});
  if (proc && proc.exitCode === null && proc.signalCode === null) {
    proc.kill('SIGKILL');
    await exitPromise;
  }
  const output = home && path.join(home, 'stdout.txt');
  if (process.exitCode && fs.existsSync(output)) console.log(fs.readFileSync(output, 'utf8').slice(-3000));
  if (home) fs.rmSync(home, { recursive: true, force: true });
});

test('the page shows every computer with its images and style sheet', async () => {
  const response = await page.goto(`http://127.0.0.1:${port}/wol`, { waitUntil: 'load' });
  assert.equal(response.status(), 200);
  assert.match(await page.title(), /^Tavrel\s+V\d+\.\d+\.\d+$/);
  for (const label of ['Refresh', 'Query LAN', 'Save Changes', 'R', 'Online', 'Name', 'IP', 'MAC']) {
    assert.equal(await page.locator(`input[type='submit'][value='${label}']`).count(), 1, label);
  }
  assert.equal(await page.inputValue("input[name='subnet']"), '127.0.0');

  const rows = await readRows();
  assert.deepEqual(
    ours(rows).map((r) => [r.name, r.ip, r.mac, r.buttons.join(' ')]).sort(),
    [
      ...computers.map((c) => [c.name, c.ip, c.mac, c.mac ? 'WOL Reboot Shutdown' : ' Reboot Shutdown']),
      ['', arpOnly.ip, arpOnly.mac, 'WOL  '],
    ].sort(),
  );
  rows.forEach((r, i) => assert.equal(r.className, i % 2 ? 'TABLEROWEVEN' : 'TABLEROWODD', `row ${i}`));
  for (const r of ours(rows)) {
    assert.equal(r.led, r.name ? '\\led-Green.gif' : '', `LED of ${r.ip}`); // all seen at start-up
  }

  const images = await page.$$eval('img', (imgs) => imgs.map((i) => [i.src, i.complete, i.naturalWidth]));
  assert.ok(images.length >= computers.length);
  for (const [src, complete, width] of images) assert.ok(complete && width === 13, `image ${src} (${width})`);
  const header = page.locator('td.TABLEHEADER').first();
  assert.equal(await header.evaluate((td) => getComputedStyle(td).backgroundColor), 'rgb(99, 99, 156)');
  await page.screenshot({ path: path.join(outDir, 'page.png'), fullPage: true });
});

test('the column buttons sort the rows and a second press turns the order round', async () => {
  // [button, descending after the press, our rows top to bottom (or null: only sortedness is checked)]
  const steps = [
    ['Name', false, ['.44', '.9', '.3', '.21', '.10', '.30']],
    ['IP', false, ['.3', '.9', '.10', '.21', '.30', '.44']],
    ['MAC', false, ['.30', '.9', '.21', '.44', '.10', '.3']],
    ['Online', false, null],
    ['Online', true, null],
    ['Name', true, ['.30', '.10', '.21', '.3', '.9', '.44']],
    ['Name', false, ['.44', '.9', '.3', '.21', '.10', '.30']],
  ];
  for (const [button, descending, expected] of steps) {
    const rows = await press(`input[type='submit'][name='${button}']`);
    assertSorted(rows, button, descending);
    if (expected) assert.deepEqual(ips(rows), expected, `after ${button}`);
    assert.equal(ours(rows).length, computers.length + 1);
    const ini = readIni().WOL;
    assert.equal(ini.SORT, button);
    assert.equal(ini.SORTDIR ?? 'ASC', descending ? 'DESC' : 'ASC', `direction after ${button}`);
  }
  // Ties aside, the one row without a name (no LED either) sorts first, and last when turned round.
  await press("input[type='submit'][name='Online']");
  assert.equal(ips(await readRows())[0], '.44');
  await press("input[type='submit'][name='Online']");
  assert.equal(ips(await readRows()).at(-1), '.44');
  // Another column keeps the direction (DESC); pressing it again turns it back for the tests below.
  assert.deepEqual(ips(await press("input[type='submit'][name='Name']")), ['.30', '.10', '.21', '.3', '.9', '.44']);
  assert.deepEqual(ips(await press("input[type='submit'][name='Name']")), ['.44', '.9', '.3', '.21', '.10', '.30']);
});

test('Save Changes stores a new name', async () => {
  const delta = await rowOf('127.0.0.10');
  await page.fill(`input[name='Name${delta.key}']`, 'office');
  await press("input[type='submit'][name='Save']");

  const rows = await readRows();
  assert.equal(rows.find((r) => r.ip === '127.0.0.10').name, 'OFFICE');
  assert.equal(rows.filter((r) => /^delta$/i.test(r.name)).length, 0);
  assert.equal(ours(rows).length, computers.length + 1);
  const ini = readIni();
  assert.equal(ini.COMPUTER.OFFICE, '127.0.0.10');
  assert.equal(ini.COMPUTER.ALPHA, '127.0.0.9', 'the other names stay');
  assert.equal(ini.ARP['127.0.0.10'], 'AA-00-00-00-00-10');
});

test('a ticked remove box and Save Changes take the computer off the page and out of the file', async () => {
  const bravo = await rowOf('127.0.0.3');
  await page.check(`input[name='R${bravo.key}']`);
  await press("input[type='submit'][name='Save']");

  const rows = await readRows();
  assert.equal(rows.find((r) => r.ip === '127.0.0.3'), undefined);
  assert.deepEqual(ips(rows), ['.44', '.9', '.21', '.30', '.10']); // by name: '', alpha, charlie, echo, OFFICE
  const ini = readIni();
  assert.equal(ini.COMPUTER.BRAVO, undefined);
  assert.equal(ini.ARP['127.0.0.3'], undefined);
  assert.equal(ini.COMPUTER.DELTA, undefined, 'the section is written afresh, the old name gone');
  assert.equal(ini.COMPUTER.OFFICE, '127.0.0.10');
  for (const c of [computers[1], computers[2], arpOnly]) assert.equal(ini.ARP[c.ip], c.mac);
  assert.equal(await page.locator("input[type='checkbox']:checked").count(), 0, 'boxes come back clear');
});

test('WOL sends the magic packet to the broadcast address of the computer', async (t) => {
  const alpha = await rowOf('127.0.0.9');
  let socket;
  const packet = new Promise((resolve) => {
    if (!isRoot) return;
    socket = dgram.createSocket('udp4');
    socket.on('message', (msg) => resolve(msg));
  });
  if (socket) await new Promise((resolve) => socket.bind(7, '127.0.0.255', resolve));
  try {
    const rows = await press(`input[type='submit'][name='WOL${alpha.key}']`);
    assert.deepEqual(ips(rows), ['.44', '.9', '.21', '.30', '.10'], 'a wake changes nothing on the page');
    if (!socket) {
      t.diagnostic('not root: the wake packet on 127.0.0.255:7 is not caught (port 7 needs root)');
      return;
    }
    const received = await Promise.race([packet, new Promise((r) => setTimeout(r, 5000))]);
    assert.ok(received, 'no packet on 127.0.0.255:7 within 5 s');
    const mac = Buffer.from(computers[1].mac.replaceAll('-', ''), 'hex');
    assert.equal(received.length, 102);
    assert.deepEqual(received, Buffer.concat([Buffer.alloc(6, 0xff), ...Array(16).fill(mac)]));
  } finally {
    socket?.close();
  }
});

test('Query LAN brings the page back and the program keeps answering', async () => {
  const named = ['.9', '.21', '.30', '.10'];
  const rows = await press("input[type='submit'][name='QueryLAN']");
  assert.deepEqual(ips(rows).filter((ip) => named.includes(ip)), named);
  // The sweep of 127.0.0 has nothing to probe; once it is over the button is offered again, and the
  // table in memory holds what the sweep found (nothing) while the file keeps every address.
  await until('Query LAN offered again', 15, async () => {
    await page.goto(`http://127.0.0.1:${port}/wol`, { waitUntil: 'load' });
    return (await page.locator("input[name='QueryLAN']").count()) === 1;
  });
  const after = await readRows();
  assert.deepEqual(ips(after), named);
  assert.deepEqual(ours(after).map((r) => r.mac + r.buttons.join(' ')), Array(4).fill(' Reboot Shutdown'));
  const ini = readIni();
  for (const c of [computers[0], computers[1], computers[2], arpOnly]) assert.equal(ini.ARP[c.ip], c.mac);
  const response = await fetch(`http://127.0.0.1:${port}/wol`);
  assert.equal(response.status, 200);
  assert.match(await response.text(), /name='Name\d+'size='8' value='OFFICE'/);
  await page.screenshot({ path: path.join(outDir, 'page-after.png'), fullPage: true });
});

test('the browser met no broken request and the program ends cleanly', async () => {
  assert.deepEqual(problems, []);
  proc.kill('SIGTERM');
  const exit = await Promise.race([exitPromise, new Promise((r) => setTimeout(() => r('timeout'), 10000))]);
  assert.deepEqual(exit, { code: 0, signal: null });
  const logFile = path.join(home, 'Data', 'tavrel.txt');
  const log = fs.existsSync(logFile) ? fs.readFileSync(logFile, 'latin1') : '';
  assert.doesNotMatch(log, /MainPage|RemoteASP|UpdateDisplay|AcceptRemoteChanges|SendWOL/);
});
