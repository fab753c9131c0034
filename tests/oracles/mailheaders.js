// Decodes the header fields of Internet messages with an independent MIME reader, for the tests to
// compare with the filter's. Usage: node mailheaders.js FILE...
// One line per value: FILE, a tab, FIELD, a tab, and the value's UTF-8 bytes in hex. FIELD is
// "subject" (decoded), "FIELD.raw" (the header line's value as written, line breaks of folding
// removed, for date, subject, from, to, cc and bcc), "FIELD.name" and "FIELD.address" (one line per
// mailbox of from, to, cc and bcc, groups flattened), and "charset" (the first charset= parameter of a
// text/plain or text/html Content-Type in the file), "body" ("html", "text" or "none": what the reader
// found to show), "html" (the HTML body with its cid: links kept) and, per attachment, "attachment":
// its content type, Content-Location (else the Content-Type's name parameter), content id without
// brackets and its bytes in base64, joined by tabs before the whole is put in hex. A message the reader
// rejects gets a line "error".
const fs = require('fs');
const { simpleParser } = require('mailparser');
const hex = (text) => Buffer.from(text, 'utf8').toString('hex');
(async () => {
  for (const file of process.argv.slice(2)) {
    const out = [];
    const put = (field, value) => out.push(`${file}\t${field}\t${hex(value)}`);
    try {
      const raw = fs.readFileSync(file);
      const mail = await simpleParser(raw, { skipHtmlToText: true, skipTextToHtml: true, skipTextLinks: true, keepCidLinks: true });
      put('body', typeof mail.html === 'string' ? 'html' : typeof mail.text === 'string' ? 'text' : 'none');
      if (typeof mail.html === 'string') put('html', mail.html);
      for (const a of mail.attachments) {
        const type = a.headers.get('content-type');
        const location = a.headers.get('content-location') || (type && type.params && type.params.name) || '';
        const id = (a.contentId || '').replace(/^<(.*)>$/, '$1');
        put('attachment', [a.contentType, location, id, a.content.toString('base64')].join('\t'));
      }
      if (typeof mail.subject === 'string') put('subject', mail.subject);
      for (const line of mail.headerLines) {
        if (!['date', 'subject', 'from', 'to', 'cc', 'bcc'].includes(line.key)) continue;
        const value = line.line.slice(line.line.indexOf(':') + 1).replace(/\r?\n(?=[ \t])/g, '');
        put(`${line.key}.raw`, value.startsWith(' ') ? value.slice(1) : value);
      }
      for (const key of ['from', 'to', 'cc', 'bcc']) {
        const lists = [].concat(mail[key] || []);
        const walk = (entries) => {
          for (const entry of entries) {
            if (entry.group) { walk(entry.group); continue; }
            put(`${key}.name`, entry.name || '');
            put(`${key}.address`, entry.address || '');
          }
        };
        for (const list of lists) walk(list.value || []);
      }
      const charset = /Content-Type:[ \t]*text\/(?:plain|html)[^\n]*(?:\r?\n[ \t][^\n]*)*?charset="?([^";\s]+)/i
        .exec(raw.toString('latin1'));
      if (charset) put('charset', charset[1]);
    } catch (e) {
      put('error', e.message);
    }
    process.stdout.write(out.join('\n') + '\n');
  }
})();
