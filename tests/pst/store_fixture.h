// Stores made by the fixture writer, written to a scratch file, and the filter's entry points run on
// them through the toolkit stand-in.
#ifndef TARN_TESTS_PST_STORE_FIXTURE_H_
#define TARN_TESTS_PST_STORE_FIXTURE_H_

#include <string>
#include <vector>

#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/pst.h"
#include "pst/render/message_document.h"
#include "tests/support/pst_writer.h"
#include "tests/support/scratch_file.h"
#include "tests/support/store_writer.h"

namespace tarn::testing {

using fixture::Bytes;
using fixture::StoreDescription;
using fixture::StoreFolder;
using fixture::StoreMessage;

inline const host::EntryPoints kLinkedFilter{fltInfo, fltLoad, fltFreeData};

inline Bytes AsBytes(std::string_view text) {
    const auto* p = reinterpret_cast<const std::byte*>(text.data());
    return Bytes(p, p + text.size());
}

inline std::string AsString(const std::vector<std::byte>& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A message with only an HTML body.
inline StoreMessage HtmlMessage(const std::string& subject, const std::string& html) {
    StoreMessage m;
    m.subject = subject;
    m.html = AsBytes(html);
    return m;
}

// Writes the store into `dir` and returns its path as the toolkit names files.
inline std::u16string WriteStore(const ScratchDir& dir, const StoreDescription& store,
                                 const std::string& name = "store.pst", fixture::StoreMap* map = nullptr) {
    const fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store, map));
    return Wide(dir.Write(name, image.bytes));
}

// The document without the header block that the filter puts into every PST message (the block has
// tests of its own), so that tests of the walk and the composer compare the body alone. HTML and RTF
// blocks are recognised by their fixed first and last bytes; a document without one comes back as is.
inline std::string WithoutHeaderBlock(std::string document) {
    // A repaired HTML document's first declaration is no more the body than the block is.
    if (document.starts_with(std::string(tarn::kHtmlOpen) + std::string(tarn::kUtf8MetaFirst)))
        document.erase(tarn::kHtmlOpen.size(), tarn::kUtf8MetaFirst.size());
    const std::pair<std::string, std::string> blocks[] = {
        {"<table style = 'border-collapse: collapse ;",
         "</table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p>\r\n"},
        {"\r{\\rtlch\\fcs1 \\ab\\af37 ",
         "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto"
         "\\adjustright\\rin0\\lin0\\itap0 {\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }"},
    };
    for (const auto& [first, last] : blocks) {
        const size_t start = document.find(first);
        if (start == std::string::npos) continue;
        const size_t end = document.find(last, start);
        if (end == std::string::npos) continue;
        document.erase(start, end + last.size() - start);
        break;
    }
    return document;
}

// What one fltLoad without a slot handed to the toolkit's loader.
struct Loaded {
    int32_t status = 0;
    std::string error;  // something escaped the entry point
    int32_t format = 0;
    std::string document;  // exactly the bytes the loader was given (the length it was told)
    std::string body;      // the document without its header block
    host::LoaderKind kind = host::LoaderKind::kLoadInMemory;
};

inline Loaded LoadMessage(const std::u16string& path, int32_t message_number, bool plain_text = false) {
    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(3);
    Loaded out;
    const host::CallOutcome outcome = host::CallLoad(
        kLinkedFilter, &session.BuildLoadRequest(message_number, plain_text, /*with_slot=*/false));
    out.status = outcome.status;
    out.error = outcome.error;
    if (!toolkit.calls().empty()) {
        const host::LoaderCall& call = toolkit.calls().back();
        out.kind = call.kind;
        out.document = AsString(call.document);
        out.body = WithoutHeaderBlock(out.document);
        if (call.info) out.format = call.info->format;
    }
    return out;
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_PST_STORE_FIXTURE_H_
