// npm mailparser over the same messages as eml_bench, for comparison: every file read into memory
// first, then PASSES passes of simpleParser over all of them, timed together.
// Usage: node eml_mailparser.js PASSES FILE...   prints "mailparser: X ms per pass (N files)"
const fs = require('fs');
const { simpleParser } = require('mailparser');
(async () => {
  const passes = Number(process.argv[2]);
  const messages = process.argv.slice(3).map((f) => fs.readFileSync(f));
  // One pass first, so that the timed ones do not include loading the parser's modules.
  for (const m of messages) await simpleParser(m, { skipHtmlToText: true, skipTextToHtml: true, skipTextLinks: true });
  const start = process.hrtime.bigint();
  for (let i = 0; i < passes; i++)
    for (const m of messages) await simpleParser(m, { skipHtmlToText: true, skipTextToHtml: true, skipTextLinks: true });
  const ms = Number(process.hrtime.bigint() - start) / 1e6 / passes;
  console.log(`mailparser: ${ms.toFixed(2)} ms per pass (${messages.length} files)`);
})();
