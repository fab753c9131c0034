#include "api/export_manifest.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "common/json_writer.h"

namespace tarn::api {
namespace {

// A JSON value as far as a manifest row needs one: numbers, true and false stay as their text.
struct JsonValue {
    enum class Kind { kNull, kLiteral, kString, kArray, kObject };
    Kind kind = Kind::kNull;
    std::string text;
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members;

    const JsonValue* Find(std::string_view key) const {
        for (const auto& [name, value] : members)
            if (name == key) return &value;
        return nullptr;
    }
};

// Manifest rows nest three deep (row, attachments, attachment); anything deeper is not ours.
constexpr int kMaxJsonDepth = 4;

class JsonParser {
  public:
    explicit JsonParser(std::string_view text) : text_(text) {}

    // The whole text as one value, or nothing when it is not exactly one.
    std::optional<JsonValue> Document() {
        JsonValue value;
        if (!Value(value, 0)) return std::nullopt;
        Space();
        if (at_ != text_.size()) return std::nullopt;
        return value;
    }

  private:
    void Space() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r')) ++at_;
    }
    bool Eat(char c) {
        Space();
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }

    bool Value(JsonValue& out, int depth) {
        Space();
        if (at_ >= text_.size() || depth > kMaxJsonDepth) return false;
        const char c = text_[at_];
        if (c == '"') {
            out.kind = JsonValue::Kind::kString;
            return String(out.text);
        }
        if (c == '{' || c == '[') {
            ++at_;
            const bool object = c == '{';
            out.kind = object ? JsonValue::Kind::kObject : JsonValue::Kind::kArray;
            if (Eat(object ? '}' : ']')) return true;
            do {
                JsonValue item;
                std::string key;
                if (object && (!Eat('"') || (--at_, !String(key)) || !Eat(':'))) return false;
                if (!Value(item, depth + 1)) return false;
                if (object)
                    out.members.emplace_back(std::move(key), std::move(item));
                else
                    out.items.push_back(std::move(item));
            } while (Eat(','));
            return Eat(object ? '}' : ']');
        }
        const size_t start = at_;
        while (at_ < text_.size() && std::strchr("+-.0123456789eEtruefalsn", text_[at_]) != nullptr) ++at_;
        const std::string_view literal = text_.substr(start, at_ - start);
        if (literal == "null") return true;
        out.kind = JsonValue::Kind::kLiteral;
        out.text = literal;
        return !literal.empty();
    }

    bool Hex4(uint32_t* value) {
        if (text_.size() - at_ < 4) return false;
        *value = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text_[at_++];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return false;
            *value = *value << 4 | static_cast<uint32_t>(digit);
        }
        return true;
    }

    static void Append(std::string& out, uint32_t cp) {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | cp >> 6);
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | cp >> 12);
            out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | cp >> 18);
            out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }

    // Requires: text_[at_] is the opening quote.
    bool String(std::string& out) {
        ++at_;
        while (at_ < text_.size()) {
            const char c = text_[at_++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (at_ >= text_.size()) return false;
            const char e = text_[at_++];
            if (e != 'u') {
                constexpr std::string_view kEscapes = "\"\"\\\\//b\bf\fn\nr\rt\t";
                size_t i = 0;
                while (i < kEscapes.size() && kEscapes[i] != e) i += 2;
                if (i >= kEscapes.size()) return false;
                out += kEscapes[i + 1];
                continue;
            }
            uint32_t cp = 0;
            if (!Hex4(&cp)) return false;
            if (cp >= 0xD800 && cp < 0xDC00 && text_.substr(at_, 2) == "\\u") {
                at_ += 2;
                uint32_t low = 0;
                if (!Hex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            }
            Append(out, cp);
        }
        return false;
    }

    std::string_view text_;
    size_t at_ = 0;
};

std::optional<uint64_t> Number(const JsonValue* value) {
    uint64_t n = 0;
    if (value == nullptr || value->kind != JsonValue::Kind::kLiteral) return std::nullopt;
    const char* end = value->text.data() + value->text.size();
    const auto [ptr, ec] = std::from_chars(value->text.data(), end, n);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return n;
}

std::string Text(const JsonValue* value) {
    return value != nullptr && value->kind == JsonValue::Kind::kString ? value->text : std::string();
}

bool True(const JsonValue* value) {
    return value != nullptr && value->kind == JsonValue::Kind::kLiteral && value->text == "true";
}

// A listed file, with `complete` cleared when it lacks its size or checksum.
std::optional<ListedFile> Listed(const JsonValue& object, bool* complete) {
    ListedFile file{Text(object.Find("file")), Number(object.Find("bytes")).value_or(0),
                    Text(object.Find("sha256"))};
    if (file.file.empty()) return std::nullopt;
    if (file.sha256.empty() || !Number(object.Find("bytes"))) *complete = false;
    return file;
}

std::optional<ListedRow> RowOf(std::string line) {
    std::optional<JsonValue> value = JsonParser(line).Document();
    if (!value || value->kind != JsonValue::Kind::kObject || value->Find("summary") != nullptr)
        return std::nullopt;
    ListedRow row;
    row.source = Text(value->Find("source"));
    if (const std::optional<uint64_t> index = Number(value->Find("index"))) row.index = *index;
    row.node = Number(value->Find("node_id"));
    row.clean = True(value->Find("exported")) && Text(value->Find("error")).empty();
    if (std::optional<ListedFile> document = Listed(*value, &row.clean))
        row.files.push_back(*document);
    else
        row.clean = false;
    if (const std::string pdf = Text(value->Find("pdf")); !pdf.empty()) {
        row.files.push_back(
            {pdf, Number(value->Find("pdf_bytes")).value_or(0), Text(value->Find("pdf_sha256"))});
        row.pdf = true;
    }
    if (const JsonValue* attachments = value->Find("attachments")) {
        for (const JsonValue& a : attachments->items) {
            if (!Text(a.Find("error")).empty()) row.clean = false;
            if (std::optional<ListedFile> file = Listed(a, &row.clean)) row.files.push_back(*file);
        }
    }
    row.line = std::move(line);
    return row;
}

// Empty text is written as null.
void WriteOptional(tarn::JsonWriter& json, std::string_view key, const std::string& value) {
    json.Key(key);
    if (!value.empty())
        json.Value(value);
    else
        json.Null();
}

std::string Serialize(const Row& row) {
    std::ostringstream out;
    tarn::JsonWriter json(out);
    json.BeginObject();
    json.Field("source", row.source);
    json.Field("index", row.index);
    json.Field("folder", row.folder);
    json.Field("node_id", row.node).Field("subject", row.subject).Field("sender", row.sender);
    json.Field("sent", row.sent).Field("format", row.format);
    json.Field("bytes", static_cast<uint64_t>(row.bytes));
    WriteOptional(json, "file", row.file);
    WriteOptional(json, "sha256", row.sha256);
    // Only an export that lays documents out lists their PDFs.
    if (!row.pdf.empty() || row.pages) {
        WriteOptional(json, "pdf", row.pdf);
        json.Field("pdf_bytes", static_cast<uint64_t>(row.pdf_bytes));
        WriteOptional(json, "pdf_sha256", row.pdf_sha256);
        json.Field("pages", row.pages);
    }
    json.Field("status", row.status);
    json.Field("exported", row.exported).Field("text_fallback", row.text_fallback);
    // Every row says which repairs its document needed, so that a reviewer can see what was changed.
    json.Key("repairs").BeginArray();
    for (size_t from = 0; from < row.repairs.size();) {
        const size_t end = std::min(row.repairs.find(',', from), row.repairs.size());
        json.Value(std::string_view(row.repairs).substr(from, end - from));
        from = end + 1;
    }
    json.EndArray();
    WriteOptional(json, "error", row.error);
    json.Field("filter_reaches", row.filter_reaches);
    json.Field("filter_status", row.filter_status);
    WriteOptional(json, "filter_note", row.filter_note);
    json.Key("attachments").BeginArray();
    for (const AttachmentRow& a : row.attachments) {
        json.BeginObject();
        WriteOptional(json, "file", a.file);
        json.Field("bytes", static_cast<uint64_t>(a.bytes));
        WriteOptional(json, "sha256", a.sha256);
        json.Field("embedded", a.embedded).Field("depth", a.depth);
        json.Field("status", a.status);
        WriteOptional(json, "error", a.error);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return out.str();
}

}  // namespace

std::optional<std::vector<ListedRow>> ReadManifest(const std::filesystem::path& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = path.string() + ": " + std::strerror(errno);
        return std::nullopt;
    }
    std::vector<ListedRow> rows;
    for (std::string line; std::getline(in, line);) {
        // A line without its line end was cut as it was written; eof() tells it apart.
        if (in.eof()) break;
        if (std::optional<ListedRow> row = RowOf(std::move(line))) rows.push_back(std::move(*row));
    }
    if (in.bad()) {
        *error = path.string() + ": cannot be read";
        return std::nullopt;
    }
    return rows;
}

Manifest::Manifest(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

Manifest::~Manifest() {
    if (fd_ >= 0) ::close(fd_);
}

bool Manifest::Write(const std::string& lines) {
    if (!error_.empty()) return false;
    // One write for whole rows: a signal or a crash between writes leaves whole lines only.
    for (size_t at = 0; at < lines.size();) {
        const ssize_t n = ::write(fd_, lines.data() + at, lines.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error_ = name_ + ": " + std::strerror(n < 0 ? errno : ENOSPC);
            return false;
        }
        at += static_cast<size_t>(n);
    }
    return true;
}

bool Manifest::Flush() {
    const bool written = Write(waiting_);
    waiting_.clear();
    return written;
}

void Manifest::Add(const Row& row) {
    ++rows_;
    if (row.exported) ++exported_, bytes_ += row.bytes;
    if (!row.pdf.empty()) bytes_ += row.pdf_bytes;
    if (!row.error.empty()) ++failures_;
    for (const AttachmentRow& a : row.attachments) {
        if (!a.error.empty()) ++failures_;
        if (!a.file.empty()) ++attachments_, bytes_ += a.bytes;
    }
    waiting_ += Serialize(row) + '\n';
}

void Manifest::Keep(const ListedRow& row) {
    ++rows_;
    ++exported_;
    attachments_ += static_cast<int>(row.files.size()) - 1 - (row.pdf ? 1 : 0);
    for (const ListedFile& file : row.files) bytes_ += file.bytes;
    waiting_ += row.line + '\n';
}

bool Manifest::Finish() {
    std::ostringstream out;
    tarn::JsonWriter json(out);
    json.BeginObject().Field("summary", true).Field("rows", rows_).Field("exported", exported_);
    json.Field("attachments", attachments_).Field("failures", failures_);
    json.Field("bytes", bytes_).EndObject();
    const bool written = Write(waiting_ + out.str() + '\n');
    waiting_.clear();
    if (written && ::fsync(fd_) != 0) error_ = name_ + ": " + std::strerror(errno);
    if (::close(std::exchange(fd_, -1)) != 0 && error_.empty()) error_ = name_ + ": " + std::strerror(errno);
    return error_.empty();
}

}  // namespace tarn::api
