// An independent resumable upload server for the tests, on 127.0.0.1 and a free
// port: `node resumable_server.mjs tus <dir>` serves the tus 1.0 protocol
// (@tus/server over @tus/file-store), `node resumable_server.mjs 308 <dir>` the
// "308 Resume Incomplete" protocol (@uploadx/core). Both store uploads under
// <dir>. Prints "listening on <port>", then "stored <path>" for every finished
// upload, so the test can compare the stored bytes with its own.
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { createRequire } from 'node:module';

const [kind, directory] = process.argv.slice(2);
if (!kind || !directory) {
    console.error('usage: resumable_server.mjs tus|308 <dir>');
    process.exit(2);
}

// The stores expect their directory to exist before the first request.
fs.mkdirSync(directory, { recursive: true });

let handler;
if (kind === 'tus') {
    const { Server } = await import('@tus/server');
    const { FileStore } = await import('@tus/file-store');
    const server = new Server({
        path: '/files',
        datastore: new FileStore({ directory, expirationPeriodInMilliseconds: 3600 * 1000 }),
        onUploadFinish: async (req, upload) => {
            console.log(`stored ${path.join(directory, upload.id)}`);
            return {};
        },
    });
    handler = (req, res) => server.handle(req, res);
} else if (kind === '308') {
    const require = createRequire(import.meta.url);
    const { Uploadx, DiskStorage } = require('@uploadx/core');
    const storage = new DiskStorage({
        directory,
        filename: (file) => file.id,
        maxUploadSize: '8GB',
        onComplete: (file) => {
            console.log(`stored ${path.join(directory, file.name)}`);
            return { id: file.id, size: file.size };
        },
    });
    const uploads = new Uploadx({ storage });
    handler = (req, res) => uploads.handle(req, res);
} else {
    console.error(`unknown protocol ${kind}`);
    process.exit(2);
}

const server = http.createServer(handler);
server.listen(0, '127.0.0.1', () => console.log(`listening on ${server.address().port}`));
