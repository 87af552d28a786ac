// link.js PICTURES FOLDER CERTIFICATE HOST... - lets a browser open the pages that the host serves over
// the link, with a session that outlives the host. CERTIFICATE is empty for a plain one. Prints what
// it met; two pictures go to the folder PICTURES.
'use strict';
const { spawn } = require('child_process');
const { browse, portOf } = require('./webdriver.js');

const [pictures, folder, certificate, ...host] = process.argv.slice(2);
const scheme = certificate ? 'https' : 'http';

/// The host, at this port.
async function start(at) {
  const [program, ...words] = host.map((word) => word.replace(/^(http:127.0.0.1:)0$/, `$1${at}`));
  const running = spawn(program, words, { stdio: ['ignore', 'pipe', 'inherit'] });
  return { running, port: await portOf(running) };
}

/// Ends it; how it ended.
function end({ running }) {
  return new Promise((resolve) => {
    const tell = () => resolve(running.signalCode ?? running.exitCode);
    if (running.signalCode !== null || running.exitCode !== null) return tell();
    running.on('exit', tell);
    running.kill();
  });
}

// --- in the page

/// The type that each file comes with.
async function types() {
  const names = ['/', '/index.html', '/about.zeph', '/link.js', '/page.js', '/style.css',
    '/icon.png', '/none.js'];
  const answers = names.map(async (name) => {
    const answer = await fetch(name);
    await answer.arrayBuffer();
    return `${name} ${answer.status} ${answer.headers.get('content-type')}`;
  });
  return Promise.all(answers);
}

/// Waits for a state of the link.
function becomes(state) {
  return new Promise((resolve) => {
    const look = () => { if (link.state === state) resolve(state); };
    link.addEventListener('state', look);
    look();
  });
}

/// Sends texts, each of which has to come back, and tells their sizes. With characters of three
/// bytes, at three places, a border between two frames is inside of one for two of them at least.
async function exchange() {
  const echo = (text) => new Promise((resolve, reject) => {
    link.addEventListener('lost', ({ detail }) => reject(new Error(detail)), { once: true });
    link.addEventListener('block', ({ detail }) => {
      if (detail === text) resolve(bytesOf(text));
      else reject(new Error('another block came back'));
    }, { once: true });
    send(text);
  });
  const met = [];
  for (const size of [1, 100, 65536, 1048576]) {
    for (const before of size > 1 ? [0, 1, 2] : [1]) {
      const wide = Math.floor((size - before) / 3);
      const behind = size - before - 3 * wide;
      met.push(await echo('x'.repeat(before) + '\u20ac'.repeat(wide) + 'y'.repeat(behind)));
    }
  }
  return met.join(' ');
}

/// Waits for a block that begins so to come back, as the transcript shows it.
function shows(begin) {
  return new Promise((resolve) => {
    const look = () => {
      const came = Array.from(document.querySelectorAll('#log .received span'), (at) => at.textContent);
      if (came.at(-1).startsWith(begin)) resolve(came.at(-1));
    };
    link.addEventListener('block', look);
    look();
  });
}

// --- outside

const call = (fn, ...args) => `(${fn})(${args.map((arg) => JSON.stringify(arg)).join()})`;

async function visit(browser) {
  let served = await start(0);
  try {
    await browser.open(`${scheme}://127.0.0.1:${served.port}/`);
    console.log(`title: ${await browser.value('document.title')}`);
    const style = 'getComputedStyle(document.querySelector("main")).display';
    console.log(`style: ${await browser.value(style)}`);
    for (const line of await browser.value(call(types))) console.log(line);

    console.log(await browser.value(call(becomes, 'connected')));
    console.log(await browser.value(call(exchange)));
    await browser.type('#block', 'typed by hand, gr\u00fc\u00df dich\uE007');
    console.log(await browser.value(call(shows, 'typed')));

    console.log(`the host ends: ${await end(served)}`);
    console.log(await browser.value(call(becomes, 'connecting')));
    served = await start(served.port);
    console.log(await browser.value(call(becomes, 'connected')));
    console.log(await browser.value(call(exchange)));
    await browser.type('#block', 'The host was started again, and here we are.\uE007');
    console.log(await browser.value(call(shows, 'The host')));
    for (const shade of ['light', 'dark']) {
      await browser.scheme(shade);
      await browser.picture(`${pictures}/link-${scheme}-${shade}.png`);
    }
  } finally {
    await end(served);
  }
}

browse(folder, certificate, visit);
