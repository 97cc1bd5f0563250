// Parses a multipart/form-data body from stdin with busboy and prints the parts
// as JSON: [{name, filename?, type, data(hex)}]. Errors raised after the parts
// (such as a missing close delimiter) go to stderr and do not fail the run.
'use strict';
const busboy = require('busboy');

const contentType = process.argv[2];
const chunks = [];
process.stdin.on('data', (chunk) => chunks.push(chunk));
process.stdin.on('end', () => {
  const body = Buffer.concat(chunks);
  const parts = [];
  let reported = false;
  let openStreams = 0;
  let finished = false;
  let failure = null;
  // Reports once the parser is done and every file stream has ended.
  const report = () => {
    if (reported || !finished || openStreams > 0) return;
    reported = true;
    const error = failure;
    process.stdout.write(JSON.stringify(parts));
    process.stderr.write(JSON.stringify({ error: error ? String(error.message) : null,
                                          parts: parts.length }) + '\n');
  };
  const parser = busboy({ headers: { 'content-type': contentType },
                          limits: { fieldSize: 1 << 30 }, preservePath: true,
                          defParamCharset: 'utf8' });
  parser.on('field', (name, value, info) => {
    parts.push({ name, type: info.mimeType, data: Buffer.from(value, 'utf8').toString('hex') });
  });
  parser.on('file', (name, stream, info) => {
    const entry = { name, filename: info.filename, type: info.mimeType, data: '' };
    parts.push(entry);
    const data = [];
    ++openStreams;
    stream.on('data', (d) => {
      data.push(d);
      entry.data = Buffer.concat(data).toString('hex');
    });
    stream.on('end', () => {
      --openStreams;
      report();
    });
  });
  parser.on('close', () => { finished = true; report(); });
  parser.on('error', (error) => {
    failure = error;
    finished = true;
    // Streams of a failed form may never end; give pending events a moment.
    setTimeout(() => { openStreams = 0; report(); }, 50);
  });
  parser.end(body);
});
