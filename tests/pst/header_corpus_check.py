#!/usr/bin/env python3
"""Every message of one PST that the filter renders carries a header block that independent readers see.

  header_corpus_check.py TARNVIEW STORE.pst WORKDIR

Each message that `tarnview list` numbers is rendered with `tarnview render` (the document the toolkit's
loader is handed). RTF documents are read by unrtf, which must accept them and whose text must show each
non-empty ASCII header value. HTML documents are opened in headless Chromium, one browser start for the
whole store, and the text that the browser shows in the header table's rows must be the message's From,
Sent, To, Cc, Bcc, Subject and Importance, in the order of the block. Values that contain markup are left out of the HTML check:
the localised rows write values as they are, so a browser rightly reads "<x>" as a tag.

Exit status 0 when every rendered document passed, 1 with one line per fault otherwise. A summary line
tells how many documents each reader checked and how many messages had no document (their status).
"""
import html
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--allow-file-access-from-files", "--virtual-time-budget=60000", "--dump-dom",
]

# The block's rows in the order the localised builder writes them, by their English labels.
ROW_ORDER = ["From:", "Sent:", "To:", "Cc:", "Bcc:", "Subject:", "Importance:"]

# Reads every iframe's first table once the page has loaded, and leaves the rows' text as JSON in the
# page, which --dump-dom then prints. innerText is what a person sees: entities decoded, white space laid out.
COLLECTOR = """<!doctype html><html><head><meta charset="utf-8"></head><body><pre id="out"></pre>
%s
<script>
window.addEventListener('load', () => {
  const found = [];
  for (const frame of document.querySelectorAll('iframe')) {
    let rows;
    try {
      const table = frame.contentDocument.querySelector('table');
      rows = table ? [...table.rows].map(r => [...r.cells].map(c => c.innerText)) : [];
    } catch (e) { rows = 'unreadable: ' + e; }
    found.push({doc: frame.getAttribute('src'), rows});
  }
  document.getElementById('out').textContent = JSON.stringify(found);
});
</script></body></html>
"""


def squeeze(text):
    return re.sub(r"\s+", " ", text).strip()


def render(tarnview, store, number, out):
    run = subprocess.run([tarnview, "render", store, "--message", str(number), "-o", out],
                         capture_output=True, text=True, timeout=300)
    if run.returncode != 0:
        return None, squeeze(run.stderr)
    match = re.search(r"format (\d+)", run.stdout)
    return (int(match.group(1)) if match else None), ""


COMPARED = {"html": 0, "rtf": 0}


def check_rtf(path, entry, faults):
    run = subprocess.run(["unrtf", "--text", path], capture_output=True, timeout=120)
    name = os.path.basename(path)
    if run.returncode != 0 or b"Error" in run.stderr:
        faults.append("%s: unrtf failed (%d): %s" % (name, run.returncode, squeeze(run.stderr.decode("latin-1"))))
        return
    text = squeeze(run.stdout.decode("latin-1"))
    for field in ("sender", "sent", "to", "cc", "bcc", "subject", "importance"):
        value = squeeze(entry[field])
        # unrtf shows ASCII as it is; other characters depend on its own character tables.
        if not value or not value.isascii():
            continue
        COMPARED["rtf"] += 1
        if value not in text:
            faults.append("%s: unrtf text lacks the %s %r" % (name, field, value))


def check_html(chromium, workdir, documents, faults):
    frames = "\n".join('<iframe src="%s"></iframe>' % os.path.basename(d) for d, _ in documents)
    collector = os.path.join(workdir, "collector.html")
    with open(collector, "w", encoding="utf-8") as f:
        f.write(COLLECTOR % frames)
    profile = tempfile.mkdtemp(prefix="chromium-")
    try:
        run = subprocess.run([chromium] + CHROMIUM_FLAGS + ["--user-data-dir=" + profile, "file://" + collector],
                             capture_output=True, timeout=600)
    finally:
        shutil.rmtree(profile, ignore_errors=True)
    match = re.search(rb'<pre id="out">(.*?)</pre>', run.stdout, re.S)
    if not match or not match.group(1):
        faults.append("chromium gave no result (exit %d)" % run.returncode)
        return
    found = {item["doc"]: item["rows"] for item in json.loads(html.unescape(match.group(1).decode("utf-8")))}
    for path, entry in documents:
        name = os.path.basename(path)
        rows = found.get(name)
        if not isinstance(rows, list):
            faults.append("%s: %s" % (name, rows or "not loaded"))
            continue
        labels = [squeeze(r[0]) for r in rows if len(r) == 2]
        shown = {squeeze(r[0]): squeeze(r[1]) for r in rows if len(r) == 2}
        expected = [l for l in ROW_ORDER if l in labels]
        if not labels or labels != expected:
            faults.append("%s: header rows %r are not the block's rows in order" % (name, labels))
            continue
        for label, field in (("From:", "sender"), ("Sent:", "sent"), ("To:", "to"), ("Cc:", "cc"), ("Bcc:", "bcc"),
                             ("Subject:", "subject"), ("Importance:", "importance")):
            value = squeeze(entry[field])
            if not value or re.search(r"[<>&]", value):
                continue
            COMPARED["html"] += 1
            if shown.get(label) != value:
                faults.append("%s: the browser shows %s %r, the message has %r" % (name, label, shown.get(label), value))


def main():
    tarnview, store, workdir = sys.argv[1:4]
    chromium = shutil.which("chromium")
    if chromium is None or shutil.which("unrtf") is None:
        print("chromium and unrtf are needed (scripts/deps.sh test installs them)")
        return 1
    shutil.rmtree(workdir, ignore_errors=True)
    os.makedirs(workdir)
    listed = subprocess.run([tarnview, "list", "--json", store], capture_output=True, text=True, timeout=300)
    entries = json.loads(listed.stdout or "[]")
    faults, html_docs, rtf_docs, missing = [], [], 0, {}
    for entry in entries:
        number = entry["index"] + 1
        base = os.path.join(workdir, "m%05d" % number)
        fmt, why = render(tarnview, store, number, base)
        if fmt is None:
            missing[why] = missing.get(why, 0) + 1
            continue
        if fmt == 369:
            os.rename(base, base + ".html")
            html_docs.append((base + ".html", entry))
        elif fmt == 226:
            os.rename(base, base + ".rtf")
            check_rtf(base + ".rtf", entry, faults)
            rtf_docs += 1
    if html_docs:
        check_html(chromium, workdir, html_docs, faults)
    for fault in faults:
        print("FAULT " + fault)
    print("%s: %d messages listed, %d HTML documents read by chromium (%d values compared), %d RTF documents "
          "read by unrtf (%d values compared), no document: %s"
          % (os.path.basename(store), len(entries), len(html_docs), COMPARED["html"], rtf_docs, COMPARED["rtf"],
             json.dumps(missing) if missing else "none"))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
