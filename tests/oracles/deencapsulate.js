// Recovers the HTML encapsulated in RTF files with an independent de-encapsulator.
// Usage: node deencapsulate.js IN OUT [IN OUT]...   writes the HTML of each RTF file IN to OUT as UTF-8;
// a file that the de-encapsulator rejects gets no OUT and is named on stderr.
const fs = require('fs');
const iconvLite = require('iconv-lite');
const { deEncapsulateSync } = require('rtf-stream-parser');
const args = process.argv.slice(2);
for (let i = 0; i + 1 < args.length; i += 2) {
  try {
    const result = deEncapsulateSync(fs.readFileSync(args[i]), {
      decode: iconvLite.decode,
      mode: 'html',
      warn: () => {},
    });
    fs.writeFileSync(args[i + 1], result.text, 'utf8');
  } catch (e) {
    process.stderr.write(`${args[i]}: ${e.message}\n`);
  }
}
