// Reads the header fields of Outlook message files with an independent reader.
// Usage: node msgfields.js FILE...   prints one JSON object, keyed by FILE, each with subject, senderName,
// senderEmail, the display names of the To and Cc recipients in recipient order, and the images among its
// attachments ({name, cid, base64}) and its HTML body in base64 ("" when none); a file that the reader rejects gets {"error": message}.
const fs = require('fs');
const MsgReader = require('@kenjiuno/msgreader').default;
const out = {};
for (const file of process.argv.slice(2)) {
  try {
    const reader = new MsgReader(fs.readFileSync(file));
    const data = reader.getFileData();
    if (data.error) throw new Error(data.error);
    const images = (data.attachments || [])
      .filter((a) => /^image\//.test(a.attachMimeTag || '') || /\.(jpe?g|png|gif|bmp)$/i.test(a.fileName || ''))
      .map((a) => ({ name: a.fileName || '', cid: a.pidContentId || '',
                     base64: Buffer.from(reader.getAttachment(a).content).toString('base64') }));
    const names = (type) => (data.recipients || []).filter((r) => r.recipType === type).map((r) => r.name || '');
    out[file] = {
      subject: data.subject === undefined ? null : data.subject,
      senderName: data.senderName === undefined ? null : data.senderName,
      senderEmail: data.senderEmail === undefined ? null : data.senderEmail,
      to: names('to'),
      cc: names('cc'),
      images,
      html: data.html ? Buffer.from(data.html).toString('base64') : '',
    };
  } catch (e) {
    out[file] = { error: e.message };
  }
}
process.stdout.write(JSON.stringify(out));
