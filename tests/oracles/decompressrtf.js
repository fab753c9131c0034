// Decompresses compressed-RTF files with an independent decompressor.
// Usage: node decompressrtf.js IN OUT [IN OUT]...   writes the RTF of each IN to its OUT; a file that
// the decompressor rejects gets no OUT and is named on stderr.
const fs = require('fs');
const { decompressRTF } = require('@kenjiuno/decompressrtf');
const args = process.argv.slice(2);
for (let i = 0; i + 1 < args.length; i += 2) {
  try {
    fs.writeFileSync(args[i + 1], Buffer.from(decompressRTF(fs.readFileSync(args[i]))));
  } catch (e) {
    process.stderr.write(`${args[i]}: ${e.message}\n`);
  }
}
