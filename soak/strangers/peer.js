// Node's side of a conversation: node peer.js client|server OPTIONS, one JSON text. The client says a line and prints
// what comes back and whether the session was resumed, twice where it is to resume; where it `ends` it closes its own
// direction with the line, and prints how many bytes still come. The server is an echo, or has one page.
'use strict';
const fs = require('fs');
const https = require('https');
const tls = require('tls');

const options = JSON.parse(process.argv[3]);
for (const name of ['ca', 'cert', 'key']) {
  if (options[name]) options[name] = fs.readFileSync(options[name]);
}

function connect(session) {
  const peer = tls.connect({ ...options, host: '127.0.0.1', session, allowHalfOpen: true });
  peer.on('error', (error) => { console.log(error.code); process.exit(1); });
  return peer;
}

function echo(session) {
  const peer = connect(session);
  let latest = session;
  peer.on('session', (ticket) => { latest = ticket; });
  peer.on('secureConnect', () => peer.write('Strangers\n'));
  peer.on('data', (data) => {
    console.log(`reused=${peer.isSessionReused()} ${data.toString().trim()}`);
    peer.end();
    if (!options.resumes || session) process.exit(0);
    echo(latest);
  });
}

function count() {
  const peer = connect();
  let bytes = 0;
  peer.on('secureConnect', () => peer.end('Strangers\n'));
  peer.on('data', (data) => { bytes += data.length; });
  peer.on('end', () => { console.log(`${bytes} bytes`); process.exit(0); });
}

function serve() {
  const serving = options.http
    ? https.createServer(options, (request, response) => response.end('page'))
    : tls.createServer(options, (peer) => { peer.on('error', () => {}); peer.pipe(peer); });
  serving.listen(options.port, '127.0.0.1');
}

if (process.argv[2] === 'server') serve();
else if (options.ends) count();
else echo();
