// Reads the header fields of Outlook message files with an independent reader.
// Usage: node msgfields.js FILE...   prints one JSON object, keyed by FILE, each with subject, senderName,
// senderEmail and the display names of the To and Cc recipients in recipient order; a file that the reader
// rejects gets {"error": message}.
const fs = require('fs');
const MsgReader = require('@kenjiuno/msgreader').default;
const out = {};
for (const file of process.argv.slice(2)) {
  try {
    const data = new MsgReader(fs.readFileSync(file)).getFileData();
    if (data.error) throw new Error(data.error);
    const names = (type) => (data.recipients || []).filter((r) => r.recipType === type).map((r) => r.name || '');
    out[file] = {
      subject: data.subject === undefined ? null : data.subject,
      senderName: data.senderName === undefined ? null : data.senderName,
      senderEmail: data.senderEmail === undefined ? null : data.senderEmail,
      to: names('to'),
      cc: names('cc'),
    };
  } catch (e) {
    out[file] = { error: e.message };
  }
}
process.stdout.write(JSON.stringify(out));
