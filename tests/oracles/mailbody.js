// Decodes the body of Internet messages with an independent MIME reader, as UTF-8.
// Usage: node mailbody.js IN OUT [IN OUT]...   writes the HTML body of each IN, or its text body when it
// has no HTML, to OUT; a message that the reader rejects gets no OUT and is named on stderr.
const fs = require('fs');
const { simpleParser } = require('mailparser');
(async () => {
  const args = process.argv.slice(2);
  for (let i = 0; i + 1 < args.length; i += 2) {
    try {
      const mail = await simpleParser(fs.readFileSync(args[i]), { skipHtmlToText: true, skipTextToHtml: true, skipTextLinks: true });
      const body = typeof mail.html === 'string' ? mail.html : mail.text;
      fs.writeFileSync(args[i + 1], Buffer.from(body === undefined ? '' : body, 'utf8'));
    } catch (e) {
      process.stderr.write(`${args[i]}: ${e.message}\n`);
    }
  }
})();
