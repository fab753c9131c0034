// tarnpst._tarnpst: the public interface as Python sees it. The package's __init__.py wraps it: it
// defines tarnpst.Error and tarnpst.Document, which the calls below construct. Rendering, exporting and
// reading messages run without the GIL, so other Python threads go on meanwhile.
#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnpst/tarnpst.h"

namespace py = pybind11;
using namespace pybind11::literals;

namespace {

py::object PackageAttr(const char* name) { return py::module_::import("tarnpst").attr(name); }

tarnpst::Settings SettingsOf(std::optional<int> lang, bool compat) {
    tarnpst::Settings settings;
    settings.profile = compat ? tarnpst::Profile::kCompat : tarnpst::Profile::kRepaired;
    if (lang) {
        if (*lang <= 0 || *lang > 0xFFFF)
            throw py::value_error("lang must be a Windows LANGID between 0x0001 and 0xFFFF");
        settings.language = static_cast<uint16_t>(*lang);
    }
    return settings;
}

// An aware UTC datetime, or None when the message has no time or one that datetime cannot hold (its
// years run from 1 to 9999; a store may state any 64-bit time).
py::object SentOf(const tarnpst::Message& message) {
    if (!message.sent) return py::none();
    py::module_ datetime = py::module_::import("datetime");
    py::object utc = datetime.attr("timezone").attr("utc");
    py::object epoch = datetime.attr("datetime")(1970, 1, 1, 0, 0, 0, 0, utc);
    try {
        return epoch +
               datetime.attr("timedelta")(py::arg("seconds") = message.sent->time_since_epoch().count());
    } catch (const py::error_already_set& e) {
        if (!e.matches(PyExc_OverflowError)) throw;
        return py::none();
    }
}

template <typename T>
py::object OrNone(const std::optional<T>& value) {
    return value ? py::cast(*value) : py::none();
}

py::object TextOrNone(const std::string& text) { return text.empty() ? py::none() : py::cast(text); }

py::list RepairsOf(const std::string& joined) {
    py::list names;
    for (size_t start = 0; start < joined.size();) {
        size_t end = joined.find(',', start);
        if (end == std::string::npos) end = joined.size();
        names.append(joined.substr(start, end - start));
        start = end + 1;
    }
    return names;
}

// A manifest row as manifest.jsonl writes it, one dict key per JSON key.
py::dict RowDict(const tarnpst::ManifestRow& row) {
    py::list attachments;
    for (const auto& a : row.attachments) {
        py::dict item("file"_a = TextOrNone(a.file), "bytes"_a = a.bytes, "sha256"_a = TextOrNone(a.sha256),
                      "embedded"_a = a.embedded, "depth"_a = a.depth, "status"_a = OrNone(a.status),
                      "error"_a = TextOrNone(a.error));
        attachments.append(item);
    }
    py::dict out("source"_a = row.source, "index"_a = OrNone(row.index), "folder"_a = row.folder,
                 "node_id"_a = OrNone(row.node), "subject"_a = OrNone(row.subject),
                 "sender"_a = OrNone(row.sender), "sent"_a = OrNone(row.sent),
                 "format"_a = OrNone(row.format), "bytes"_a = row.bytes, "file"_a = TextOrNone(row.file),
                 "sha256"_a = TextOrNone(row.sha256), "status"_a = OrNone(row.status),
                 "exported"_a = row.exported, "text_fallback"_a = row.text_fallback,
                 "repairs"_a = RepairsOf(row.repairs), "error"_a = TextOrNone(row.error),
                 "filter_reaches"_a = row.filter_reaches, "filter_status"_a = OrNone(row.filter_status),
                 "filter_note"_a = TextOrNone(row.filter_note), "attachments"_a = attachments);
    if (!row.pdf.empty() || row.pages) {
        out["pdf"] = TextOrNone(row.pdf);
        out["pdf_bytes"] = row.pdf_bytes;
        out["pdf_sha256"] = TextOrNone(row.pdf_sha256);
        out["pages"] = OrNone(row.pages);
    }
    if (row.kept) out["kept"] = true;
    return out;
}

// The messages of one source. The GIL is released while the store is read; the lock keeps two Python
// threads that share one iterator from driving the cursor at once.
class MessageIterator {
  public:
    MessageIterator(const tarnpst::Source& source, const tarnpst::CursorOptions& options)
        : cursor_(source.Messages(options)) {}

    tarnpst::Message Next() {
        tarnpst::Message message;
        bool more = false;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> hold(lock_);
            more = !done_ && cursor_.Next(message);
            done_ = !more;
        }
        if (!more) throw py::stop_iteration();
        return message;
    }

    std::vector<std::string> Warnings() {
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> hold(lock_);
        return cursor_.warnings();
    }

  private:
    std::mutex lock_;
    tarnpst::Cursor cursor_;
    bool done_ = false;
};

py::object DocumentOf(tarnpst::Document document) {
    py::bytes bytes(document.bytes.data(), document.bytes.size());
    return PackageAttr("Document")(bytes, tarnpst::FormatName(document.format), RepairsOf(document.repairs));
}

py::list Export(const std::vector<std::string>& sources, const std::string& out, bool attachments,
                std::optional<unsigned> jobs, py::object progress, bool text, std::optional<int> lang,
                bool compat, bool force, bool resume, const std::vector<std::string>& folders, bool keep_rows,
                bool pdf) {
    tarnpst::ExportOptions options;
    options.settings = SettingsOf(lang, compat);
    options.text = text;
    options.attachments = attachments;
    options.force = force;
    options.resume = resume;
    options.jobs = jobs.value_or(0);
    options.folders = folders;
    options.keep_rows = keep_rows;
    options.pdf = pdf;
    options.progress_total = !progress.is_none();
    // An exception raised by the callback stops the export after the message in hand and is raised
    // again once the export has returned; False from the callback stops it the same way, quietly.
    std::exception_ptr raised;
    if (!progress.is_none()) {
        options.progress = [&progress, &raised](const tarnpst::ExportProgress& at) {
            py::gil_scoped_acquire locked;
            try {
                py::object answer = progress(at.done, at.total);
                return answer.is_none() || answer.cast<bool>();
            } catch (...) {
                raised = std::current_exception();
                return false;
            }
        };
    }
    tarnpst::ExportResult result;
    {
        py::gil_scoped_release unlocked;
        result = tarnpst::Export(sources, out, options);
    }
    if (raised) std::rethrow_exception(raised);
    if (!result.stopped.empty())
        throw tarnpst::Error(tarnpst::kStatusFailure, out + ": export stopped: " + result.stopped);
    py::list rows;
    for (const auto& row : result.rows) rows.append(RowDict(row));
    return rows;
}

}  // namespace

PYBIND11_MODULE(_tarnpst, m) {
    m.doc() = "Tarnpst's public interface; import tarnpst rather than this module.";

    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) std::rethrow_exception(thrown);
        } catch (const tarnpst::Error& e) {
            py::object error = PackageAttr("Error")(e.status(), e.what());
            PyErr_SetObject(error.get_type().ptr(), error.ptr());
        }
    });

    py::class_<tarnpst::Message>(m, "Message", "One message, in the filter's order.")
        .def_readonly("number", &tarnpst::Message::number,
                      "the message number, counted from 1 (render takes it)")
        .def_readonly("folder", &tarnpst::Message::folder, "the folder's display name; empty outside a store")
        .def_readonly("folder_path", &tarnpst::Message::folder_path,
                      "the folder's names from the store's top")
        .def_readonly("subject", &tarnpst::Message::subject)
        .def_readonly("sender", &tarnpst::Message::sender)
        .def_readonly("to", &tarnpst::Message::to)
        .def_readonly("cc", &tarnpst::Message::cc)
        .def_readonly("bcc", &tarnpst::Message::bcc)
        .def_property_readonly("sent", &SentOf, "the submit time as an aware UTC datetime, or None")
        .def_readonly("importance", &tarnpst::Message::importance,
                      "the header block's wording; empty when none")
        .def("__repr__", [](const tarnpst::Message& message) {
            return py::str("<tarnpst.Message {} {!r}>").format(message.number, message.subject);
        });

    py::class_<MessageIterator>(m, "MessageIterator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &MessageIterator::Next)
        .def_property_readonly("warnings", &MessageIterator::Warnings,
                               "what the walk could not read, one line each; whole once the iteration ended");

    py::class_<tarnpst::Source>(m, "Source", "A PST store, a message file or an Internet message.")
        .def_property_readonly("path", &tarnpst::Source::path)
        .def_property_readonly(
            "kind", [](const tarnpst::Source& s) { return tarnpst::KindName(s.kind()); },
            "'pst', 'msg', 'eml' or 'unsupported'")
        .def_property_readonly("warnings", &tarnpst::Source::warnings)
        .def("__len__", [](const tarnpst::Source& s) { return s.MessageCount(); })
        .def(
            "messages",
            [](const tarnpst::Source& s, bool attachments, unsigned jobs) {
                return std::make_unique<MessageIterator>(s, tarnpst::CursorOptions{attachments, jobs});
            },
            "attachments"_a = false, "jobs"_a = 1, py::keep_alive<0, 1>())
        .def(
            "__iter__",
            [](const tarnpst::Source& s) {
                return std::make_unique<MessageIterator>(s, tarnpst::CursorOptions{});
            },
            py::keep_alive<0, 1>())
        .def(
            "folders",
            [](const tarnpst::Source& s) {
                py::list folders;
                for (const auto& f : s.Folders()) folders.append(py::make_tuple(f.path, f.messages));
                return folders;
            },
            "a store's folders as (path, messages), the paths export(folders=...) takes")
        .def(
            "render",
            [](const tarnpst::Source& s, int32_t number, bool text, std::optional<int> lang, bool compat) {
                tarnpst::RenderOptions options{SettingsOf(lang, compat), text};
                tarnpst::Document document;
                {
                    py::gil_scoped_release unlocked;
                    document = s.Render(number, options);
                }
                return DocumentOf(std::move(document));
            },
            "number"_a, py::kw_only(), "text"_a = false, "lang"_a = py::none(), "compat"_a = false,
            "message `number` (from 1) as `tarnview render` writes it");

    m.def(
        "open",
        [](const std::string& path) {
            py::gil_scoped_release unlocked;
            return tarnpst::Source::Open(path);
        },
        "path"_a);
    m.def("export", &Export, "sources"_a, "out"_a, py::kw_only(), "attachments"_a = false,
          "jobs"_a = py::none(), "progress"_a = py::none(), "text"_a = false, "lang"_a = py::none(),
          "compat"_a = false, "force"_a = false, "resume"_a = false, "folders"_a = std::vector<std::string>{},
          "keep_rows"_a = true, "pdf"_a = false);
    m.def("status_text", &tarnpst::StatusText, "status"_a);
}
