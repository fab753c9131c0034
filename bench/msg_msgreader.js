// Times npm @kenjiuno/msgreader, run as a black box, on message files: every file read from disk and its
// fields, recipients and attachment list taken (getFileData), RUNS passes over all of them in one process.
// Usage: node msg_msgreader.js RUNS FILE...   prints the mean milliseconds per pass.
const fs = require('fs');
const path = require('path');
const MsgReader = require(path.join(__dirname, '../tests/oracles/node_modules/@kenjiuno/msgreader')).default;
const [runs, ...files] = process.argv.slice(2);
const pass = () => {
  for (const file of files) new MsgReader(fs.readFileSync(file)).getFileData();
};
pass();  // warm: the files in the page cache, the code compiled
const start = process.hrtime.bigint();
for (let i = 0; i < Number(runs); i++) pass();
const ms = Number(process.hrtime.bigint() - start) / 1e6 / Number(runs);
console.log(`msgreader getFileData: ${ms.toFixed(1)} ms per pass over ${files.length} files (mean of ${runs})`);
