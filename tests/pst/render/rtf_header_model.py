#!/usr/bin/env python3
"""A model of the RTF header rows, written from the published row templates, label table, charset
table and text-encoding rules, with Python's own code-page codecs standing in for the system's. It
prints the expected rows of each language that tests/pst/render/header_rtf_rows.h holds, so that the
tests' pins come from this model and not from the code under test.

Run: python3 tests/pst/render/rtf_header_model.py, and paste its output as the body of kRows.
The glyph answer is the test's fixed one: only "MS Gothic" covers text outside the code pages.
"""
import unicodedata

LABELS = {
    0x0409: ["From:      ", "To:        ", "Bcc:       ", "Cc:        ", "Sent:      ", "Subject:   ", "Importance:", "High", "Low"],
    0x0407: ["Von:       ", "An:        ", "Bcc:       ", "Cc:        ", "Gesendet:  ", "Betreff:   ", "Priorität: ", "Höch", "Niedrig"],
    0x0418: ["De la:     ", "Către:     ", "Bcc:       ", "Cc:        ", "Trimis:    ", "Subiect:   ", "Importanță:", "Maxim", "Minim"],
    0x040C: ["De:        ", "À:         ", "Bcc:       ", "Cc:        ", "Envoyè:    ", "Objet:     ", "Importance:", "Haute", "Faible"],
    0x0411: ["差出人:  ", "宛先:    ", "Bcc:    ", "抄送:   ", "送信日時:", "件名:    ", "重要度:  ", "高", "低"],
    0x0804: ["发件人:  ", "收件人:  ", "Bcc:    ", "抄送:   ", "发送时间:", "主题:    ", "重要性:  ", "高", "低"],
    0x0404: ["寄件者:  ", "收件者:  ", "Bcc:    ", "副本:   ", "寄件日期:", "主旨:    ", "重要性:  ", "高", "低"],
    0x0412: ["보낸 사람:", "받는 사람:", "Bcc:    ", "참조:   ", "보낸 날짜:", "제목:     ", "중요도:  ", "높음", "낮음"],
    0x2C01: ["نمن :  ", "إلى :  ", "Bcc:   ", "نسخة:  ", "تاريخ الإرسال:", "الموضوع:", "الأهمية: ", "عالية", "منخفضة"],
}
FROM, TO, BCC, CC, SENT, SUBJECT, IMPORTANCE, HIGH = range(8)
ORDER = [FROM, SENT, TO, CC, BCC, SUBJECT, IMPORTANCE]

CHARSETS = [(0, 1252, 1), (1, 0, 0), (2, 42, 1), (77, 10000, 0), (78, 10001, 0), (79, 10003, 0), (80, 10008, 0),
            (81, 10002, 0), (82, 1361, 0), (83, 10005, 0), (84, 10004, 0), (85, 10006, 0), (86, 10081, 0),
            (87, 10021, 0), (88, 10029, 0), (89, 10007, 0), (128, 932, 1), (129, 949, 1), (130, 1361, 1),
            (134, 936, 0), (136, 950, 0), (161, 1253, 1), (162, 1254, 1), (163, 1258, 1), (177, 1255, 1),
            (178, 1256, 1), (179, 1256, 0), (180, 1256, 0), (181, 1255, 0), (186, 1257, 1), (204, 1251, 1),
            (222, 874, 1), (238, 1250, 1), (254, 437, 0), (255, 850, 0)]
FALLBACK = ["Arial", "Symbol", "MS Gothic", "Batang", "Gulim", "Symbol"]
ROW_OPEN = "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 "
JOINT = "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 "
ROW_END = "\\insrsid5716485 \\par }\r\n"


def covers(face, text):
    return face == "MS Gothic"


def holds(cp, text):
    # Symbol holds only its private-use block; the platform has no Johab converter.
    if cp in (42, 1361):
        return False
    try:
        return text.encode("cp%d" % cp).decode("cp%d" % cp) == text
    except (UnicodeError, LookupError):
        return False


class Table:
    def __init__(self, text, entries, doc_cp):
        self.text, self.entries, self.doc_cp = text, entries, doc_cp
        self.next = entries[-1][0] + 1
        self.changed = False

    def add(self, cp, charset, family, face):
        n = self.next
        self.next += 1
        self.entries.append((n, cp, charset, face))
        self.text = self.text[:-1] + "{\\f%d \\%s \\fcharset%d %s}" % (n, family, charset, face) + self.text[-1]
        self.changed = True
        return n

    def for_code_page(self, cp):
        for n, ecp, _, _ in self.entries:
            if ecp == cp or (ecp == 0 and cp == self.doc_cp):
                return n
        charset = next(c for c, p, _ in CHARSETS if p == cp)
        if charset in (0, 178, 204, 238):
            return self.add(cp, charset, "swiss", "Arial")
        if charset == 2:
            return self.add(cp, charset, "nil", "Symbol")
        if charset == 128:
            return self.add(cp, charset, "swiss", "MS Gothic")
        return self.add(cp, charset, "swiss", "Batang")


def escape(byte):
    return chr(byte) if 32 <= byte < 128 and chr(byte) not in "{}\\" else "\\'%02x" % byte


class Writer:
    def __init__(self, table):
        self.table, self.out, self.current = table, "", None

    def switch(self, font):
        if font != self.current:
            self.out += "\\f%d " % font
            self.current = font

    def text(self, s):
        i = 0
        while i < len(s) and ord(s[i]) < 128:
            self.out += escape(ord(s[i]))
            i += 1
        if i < len(s):
            self.unicode(s[i:])

    def ascii_run(self, s, base):
        if s:
            self.switch(base)
            self.out += "".join(escape(ord(c)) for c in s)

    def unicode(self, s):
        if self.current is None:
            self.current = self.table.for_code_page(self.table.doc_cp)
        base = self.current
        cp = next((p for _, p, u in CHARSETS if u and holds(p, s)), None)
        if cp is None:
            # These labels hold one script each (besides punctuation and spaces), so the first run
            # reaches the end of the text; the model does not split runs further.
            scripts = {unicodedata.name(c).split()[0] for c in s if ord(c) >= 128}
            assert len(scripts) == 1 or scripts <= {"CJK"}, scripts
            font = None
            for n, _, _, face in self.table.entries:
                if face and covers(face, s):
                    font = n
                    break
            if font is None:
                in_table = {face.lower() for _, _, _, face in self.table.entries}
                for face in FALLBACK:
                    if face.lower() not in in_table and covers(face, s):
                        font = self.table.add(0, 0, "", face)
                        break
            if font is not None:
                self.switch(font)
            for c in s:
                unit = ord(c)
                self.out += "\\u%d ?" % (unit - 0x10000 if unit >= 0x8000 else unit)
        else:
            font = self.table.for_code_page(cp)
            i = 0
            while i < len(s):
                j = i
                if ord(s[i]) < 128:
                    while j < len(s) and ord(s[j]) < 128:
                        j += 1
                    self.ascii_run(s[i:j], base)
                else:
                    while j < len(s) and ord(s[j]) >= 128:
                        j += 1
                    self.switch(font)
                    # Code-page bytes below 128 go out as they are, even a trail byte that RTF reads
                    # as structure ("{" in the Shift-JIS of "送").
                    self.out += "".join(chr(b) if b < 128 else "\\'%02x" % b
                                        for b in s[i:j].encode("cp%d" % cp))
                i = j
        self.switch(base)


def c_literal(s):
    out = ""
    for b in s.encode("utf-8"):
        c = chr(b)
        if c == "\\":
            out += "\\\\"
        elif c == '"':
            out += '\\"'
        elif c == "\r":
            out += "\\r"
        elif c == "\n":
            out += "\\n"
        elif 32 <= b < 127:
            out += c
        else:
            out += "\\x%02x" % b
    return out


def rows(language, values, address):
    """The seven rows in block order, and the font table's text when the rows added fonts to it."""
    table = Table("\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}", [(0, 1252, 0, "Arial")], 1252)
    w = Writer(table)
    labels = LABELS[language]
    out = []
    for field in ORDER:
        value = values[field] if field != IMPORTANCE else labels[HIGH]
        w.out = ROW_OPEN
        w.text(labels[field])
        w.out += JOINT
        w.text(value)
        if field == FROM:
            w.out += " <"
            w.text(address)
            w.out += ">"
        w.out += ROW_END
        out.append(w.out)
    return table.text if table.changed else None, out


if __name__ == "__main__":
    values = {FROM: "Ann", SENT: "Tue Mar 05, 2019 02:07 PM", TO: "Bob", CC: "Cy", BCC: "Dee", SUBJECT: "Hi {x}"}
    for language in LABELS:
        table, out = rows(language, values, "ann@example.com")
        print("    {0x%04X,\n     %s,\n     {%s}}," % (
            language, '"%s"' % c_literal(table) if table else "nullptr",
            ",\n      ".join('"%s"' % c_literal(r) for r in out)))
