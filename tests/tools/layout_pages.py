#!/usr/bin/env python3
"""tarnview's pages: the laid-out PDF of each source kind shows the header rows and the subject, a long
message has as many pages in `info` as in its PDF, a page picture follows --dpi, and a missing browser
or page is a clear failure; an export lays each document out beside it. Usage: layout_pages.py TARNVIEW REPO SHARED"""
import json, os, shutil, struct, subprocess, sys, tempfile

tarnview, repo, shared = sys.argv[1:4]
work = tempfile.mkdtemp()
failures = []


def run(*args, env=None):
    return subprocess.run([tarnview, *args], capture_output=True, text=True, env=env, timeout=300)


def check(ok, what):
    if not ok:
        failures.append(what)


def poppler(tool, pdf):
    return subprocess.run([tool, pdf, "-"] if tool == "pdftotext" else [tool, pdf],
                          capture_output=True, text=True, check=True).stdout


long_eml = os.path.join(work, "long.eml")
with open(long_eml, "w") as f:
    f.write("From: Ada <ada@example.org>\nSubject: A long report\nContent-Type: text/plain\n\n")
    f.writelines(f"Line {i} of the report, which runs over several pages.\n" for i in range(200))
# A message that points at a file of this machine: the page must not show it.
secret, peek_eml = os.path.join(work, "secret.txt"), os.path.join(work, "peek.eml")
open(secret, "w").write("LOCAL-FILE-SECRET")
open(peek_eml, "w").write(f'Subject: Peek\nContent-Type: text/html\n\n<p>Seen</p><iframe src="file://{secret}">')

# Source, then what the text must hold (the header rows and the subject), and what it must not.
documents = [
    (peek_eml, ["Subject:", "Peek", "Seen"], "LOCAL-FILE-SECRET"),
    (f"{repo}/samples/sample.pst", ["From:", "Subject:", "Welcome to Tarnpst"]),  # PST, HTML
    (f"{shared}/corpus/msg/ansi-simple-sent-fromtext.msg", ["From:", "Subject:", "BitDaddys Software"]),  # RTF
    (f"{repo}/samples/hello.eml", ["From:", "Subject:", "Notes on the engine"]),  # text
    (f"{shared}/corpus/eml/gb2312-8bit-chinese.eml", ["From:", "Subject:", "提示：您的企业成员暂时无法登录邮件客户端"]),
]
for source, wanted, *unwanted in documents:
    pdf = os.path.join(work, os.path.basename(source) + ".pdf")
    r = run("render", source, "--pdf", "-o", pdf)
    check(r.returncode == 0, f"render --pdf {source}: {r.stderr}")
    if r.returncode == 0:
        text = poppler("pdftotext", pdf)
        check(all(w in text for w in wanted) and not any(u in text for u in unwanted),
              f"{source}: {wanted} not all in, or {unwanted} in {text[:300]!r}")

# The long message: info's pages, the PDF's pages, and page pictures at two resolutions.
info = run("info", long_eml)
pages = int(next(l.split()[1] for l in info.stdout.splitlines() if l.startswith("pages")))
pdf = os.path.join(work, "long.pdf")
run("render", long_eml, "--pdf", "-o", pdf)
pdf_pages = int(next(l.split()[1] for l in poppler("pdfinfo", pdf).splitlines() if l.startswith("Pages:")))
check(pages > 1 and pages == pdf_pages, f"long message: info says {pages} pages, pdfinfo {pdf_pages}")
check('"pages":1,' in run("info", long_eml, "--json", "--no-layout").stdout, "--no-layout: one page")

# Arguments, then the PNG's size or a failure's reason.
pictures = [
    (["--page", "2"], (816, 1056)),
    (["--page", "2", "--dpi", "48"], (408, 528)),
    (["--dpi", "150"], (1275, 1650)),
    (["--page", "99"], "page 99 asked of a document of"),
]
for args, expected in pictures:
    png = os.path.join(work, "page.png")
    r = run("render", long_eml, "--png", *args, "-o", png)
    if isinstance(expected, str):
        check(r.returncode == 1 and expected in r.stderr, f"--png {args}: {r.stderr}")
    else:
        size = struct.unpack(">II", open(png, "rb").read()[16:24]) if r.returncode == 0 else r.stderr
        check(size == expected, f"--png {args}: {size} instead of {expected}")
        os.remove(png)

# export --pdf: a PDF beside each document, which the manifest names with its pages, as pdfinfo counts
# them; a document that cannot be laid out keeps its row, with the reason.
out = os.path.join(work, "export")
r = run("export", f"{repo}/samples/sample.pst", long_eml, "-o", out, "--pdf")
rows = [json.loads(l) for l in open(os.path.join(out, "manifest.jsonl")) if '"summary"' not in l]
check(r.returncode == 0 and rows and all(row.get("pdf") for row in rows), f"export --pdf: {r.stderr} {rows}")
for row in rows:
    pdf_pages = int(next(l.split()[1] for l in poppler("pdfinfo", os.path.join(out, row["pdf"])).splitlines()
                         if l.startswith("Pages:")))
    check(row["pages"] == pdf_pages and row["pdf"].endswith(".pdf"), f"export --pdf: {row}")
r = run("export", long_eml, "-o", out + "2", "--pdf", env={**os.environ, "PATH": "/nonexistent"})
row = json.loads(open(os.path.join(out + "2", "manifest.jsonl")).readline())
check(r.returncode == 1 and row["file"] and "chromium is not installed" in row["error"], f"export, no browser: {row}")

# Without a browser on the path, a clear reason at once.
r = run("render", long_eml, "--pdf", "-o", pdf, env={**os.environ, "PATH": "/nonexistent"})
check(r.returncode == 1 and "chromium is not installed" in r.stderr, f"no browser: {r.stderr}")

shutil.rmtree(work)
for f in failures:
    print("FAIL:", f)
sys.exit(1 if failures else 0)
