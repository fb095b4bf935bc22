// Decodes lossless JPEG streams with jpeg-lossless-decoder-js (an independent
// decoder used as a test oracle) and writes each one's samples as raw bytes
// (16-bit samples little-endian). Usage: node lossless_js_decode.cjs MODULE IN OUT [IN OUT ...]
const fs = require('fs');
const [decoderPath, ...files] = process.argv.slice(2);
const { Decoder } = require(decoderPath);
for (let i = 0; i + 1 < files.length; i += 2) {
    const data = fs.readFileSync(files[i]);
    const samples = new Decoder().decode(data.buffer.slice(data.byteOffset, data.byteOffset + data.length));
    fs.writeFileSync(files[i + 1], Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength));
}
