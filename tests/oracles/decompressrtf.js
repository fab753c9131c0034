// Decompresses one compressed-RTF file with an independent decompressor and writes the RTF to stdout.
// Usage: node decompressrtf.js FILE
const fs = require('fs');
const { decompressRTF } = require('@kenjiuno/decompressrtf');
process.stdout.write(Buffer.from(decompressRTF(fs.readFileSync(process.argv[2]))));
