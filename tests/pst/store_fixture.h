// Stores made by the fixture writer, written to a scratch file, and the filter's entry points run on
// them through the toolkit stand-in.
#ifndef TARN_TESTS_PST_STORE_FIXTURE_H_
#define TARN_TESTS_PST_STORE_FIXTURE_H_

#include <string>
#include <vector>

#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/pst.h"
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

// What one fltLoad without a slot handed to the toolkit's loader.
struct Loaded {
    int32_t status = 0;
    std::string error;  // something escaped the entry point
    int32_t format = 0;
    std::string document;  // exactly the bytes the loader was given (the length it was told)
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
        if (call.info) out.format = call.info->format;
    }
    return out;
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_PST_STORE_FIXTURE_H_
