#!/usr/bin/env python3
"""Lists the images of a PST store's messages that an HTML body refers to by "cid:" and the attachment's
long file name, as pypff (libpff) reads the store.

  pypff_inline_images.py STORE.pst

One line per message that has an HTML body and attachments, tab-separated:

    message  NODE-ID  ATTACHMENTS

and after it one line per attachment that the HTML body refers to:

    image  NODE-ID  INDEX  KIND  NAME-HEX  DATA-BASE64

KIND is "cid" when the body holds "cid:" followed by the long file name (property 0x3707), else "name"
when it holds the file name itself (the long one, or without it the short one, 0x3704); both compared
as UTF-8 bytes, case-sensitively. NODE-ID is the message's node id in decimal, INDEX the attachment's place in the attachment table,
NAME-HEX the name's UTF-8 bytes in hex, DATA-BASE64 the attachment's bytes in base64.

Run by the corpus test of inline images as an independent reader; pypff is used as a black box."""
import base64
import sys

import pypff

LONG_FILE_NAME = 0x3707
SHORT_FILE_NAME = 0x3704


def name_property(attachment, entry_type):
    for record_set in attachment.record_sets:
        for entry in record_set.entries:
            if entry.entry_type == entry_type:
                try:
                    return entry.data_as_string
                except (IOError, OSError, UnicodeDecodeError):
                    return None
    return None


def messages(folder):
    for index in range(folder.number_of_sub_messages):
        yield folder.get_sub_message(index)
    for index in range(folder.number_of_sub_folders):
        yield from messages(folder.get_sub_folder(index))


def main():
    store = pypff.file()
    store.open(sys.argv[1])
    for message in messages(store.root_folder):
        html = message.html_body
        if not html or message.number_of_attachments == 0:
            continue
        if isinstance(html, str):
            html = html.encode("utf-8")
        print("message\t%d\t%d" % (message.identifier, message.number_of_attachments))
        for index in range(message.number_of_attachments):
            attachment = message.get_attachment(index)
            long_name = name_property(attachment, LONG_FILE_NAME)
            if long_name and b"cid:" + long_name.encode("utf-8") in html:
                kind, name = "cid", long_name.encode("utf-8")
            else:
                name = (long_name or name_property(attachment, SHORT_FILE_NAME) or "").encode("utf-8")
                if not name or name not in html:
                    continue
                kind = "name"
            data = attachment.read_buffer(attachment.size) if attachment.size > 0 else b""
            print("image\t%d\t%d\t%s\t%s\t%s" % (message.identifier, index, kind, name.hex(),
                                                 base64.b64encode(data).decode("ascii")))
    store.close()


if __name__ == "__main__":
    main()
