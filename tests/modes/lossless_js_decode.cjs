// Decodes a lossless JPEG stream with jpeg-lossless-decoder-js (an independent
// decoder used as a test oracle) and writes its samples as raw bytes
// (16-bit samples little-endian). Usage: node lossless_js_decode.cjs MODULE IN OUT
const fs = require('fs');
const [decoderPath, input, output] = process.argv.slice(2);
const { Decoder } = require(decoderPath);
const data = fs.readFileSync(input);
const samples = new Decoder().decode(data.buffer.slice(data.byteOffset, data.byteOffset + data.length));
fs.writeFileSync(output, Buffer.from(samples.buffer, samples.byteOffset, samples.byteLength));
