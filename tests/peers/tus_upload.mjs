// Uploads a file with tus-js-client, the reference tus client, as the peer of
// the library's resumable upload benchmark:
//   node tus_upload.mjs <endpoint> <file> <chunkBytes> <retryDelayMsecs>
// Prints "done <seconds>" when the upload has finished.
import fs from 'node:fs';
import { createRequire } from 'node:module';

const require = createRequire(import.meta.url);
const tus = require('tus-js-client');
const [endpoint, file, chunk, delay] = process.argv.slice(2);
const size = fs.statSync(file).size;
const started = process.hrtime.bigint();
const upload = new tus.Upload(fs.createReadStream(file), {
    endpoint,
    uploadSize: size,
    chunkSize: Number(chunk),
    retryDelays: Array(1000).fill(Number(delay)),
    metadata: { filename: 'bench.bin' },
    onError: (error) => {
        console.error(`failed: ${error}`);
        process.exit(1);
    },
    onSuccess: () => {
        console.log(`done ${Number(process.hrtime.bigint() - started) / 1e9}`);
    },
});
upload.start();
