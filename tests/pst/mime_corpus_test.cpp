// Every Internet message of the corpus through the entry points, in the contract's profile and in the
// repaired one, against an independent MIME reader (npm mailparser, tests/oracles/mailheaders.js, run as
// a black box):
//
// - each renders with status 1; in the contract's profile also with -9 for one of the reasons the reader
//   documents (a multipart whose delimiters follow LF alone, or a message in which the other reader
//   finds nothing to show either);
// - the From, To, Cc, Bcc, Subject and Date values in the document (or, for a -9, in the reader's record)
//   equal what the other reader decodes, apart from the differences this reader makes by design, each
//   named below in the format's terms and applied to the other reader's value with iconv; the repaired
//   profile compares directly, but for the differences named for it too;
// - every PNG, GIF, JPEG or WMF part with a location that the HTML body refers to appears in the
//   document as a data URI of the part's bytes, and the parts that do not are listed with the reason.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "pst/render/mime_reader.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

const std::filesystem::path kCorpus = std::filesystem::path(TARN_SHARED_DIR) / "corpus" / "eml";

std::vector<std::string> CorpusFiles() {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(kCorpus))
        if (entry.path().extension() == ".eml") files.push_back(entry.path().filename().string());
    std::sort(files.begin(), files.end());
    return files;
}

// What the other reader says of each file: field -> values, in its order.
using OracleFields = std::map<std::string, std::vector<std::string>>;

const std::map<std::string, OracleFields>& Oracle() {
    static const std::map<std::string, OracleFields> oracle = [] {
        std::map<std::string, OracleFields> out;
        std::string command = "node '" TARN_SOURCE_DIR "/tests/oracles/mailheaders.js'";
        for (const std::string& file : CorpusFiles()) command += " '" + (kCorpus / file).string() + "'";
        std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
        if (!pipe) return out;
        std::string text;
        char chunk[65536];
        for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe.get())) > 0;) text.append(chunk, got);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const size_t tab1 = line.find('\t');
            const size_t tab2 = line.find('\t', tab1 + 1);
            if (tab1 == std::string::npos || tab2 == std::string::npos) continue;
            const std::string file = std::filesystem::path(line.substr(0, tab1)).filename().string();
            out[file][line.substr(tab1 + 1, tab2 - tab1 - 1)].push_back(FromHex(line.substr(tab2 + 1)));
        }
        return out;
    }();
    return oracle;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Converts with glibc's iconv; with `replace`, a byte that begins no character in `from` becomes U+FFFD
// (the text then must go to UTF-8) and the conversion goes on behind it.
std::optional<std::string> Iconv(const std::string& in, const std::string& from, const std::string& to,
                                 bool replace = false) {
    iconv_t cd = iconv_open(to.c_str(), from.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return std::nullopt;
    std::string out(in.size() * 4 + 16, '\0');
    char* source = const_cast<char*>(in.data());
    size_t left = in.size();
    char* target = out.data();
    size_t room = out.size();
    bool failed = false;
    while (left > 0) {
        if (iconv(cd, &source, &left, &target, &room) != static_cast<size_t>(-1)) continue;
        if (!replace || room < 3) {
            failed = true;
            break;
        }
        std::memcpy(target, "\xEF\xBF\xBD", 3);
        target += 3;
        room -= 3;
        ++source;
        --left;
    }
    iconv_close(cd);
    if (failed) return std::nullopt;
    out.resize(out.size() - room);
    return out;
}

// The value of header field `name` (with its colon) as the file holds it: the first line of the message's
// header block that begins with it, any case, one space skipped, folded lines joined without their breaks.
std::optional<std::string> RawField(const std::string& message, const std::string& name) {
    const size_t crlf = message.find("\r\n\r\n");
    const std::string block =
        message.substr(0, crlf != std::string::npos ? crlf + 2 : message.find("\n\n") + 1);
    for (size_t line = 0; line < block.size(); line = block.find('\n', line) + 1) {
        if (Lower(block.substr(line, name.size())) != Lower(name)) {
            if (block.find('\n', line) == std::string::npos) break;
            continue;
        }
        size_t at = line + name.size();
        if (at < block.size() && block[at] == ' ') ++at;
        std::string value;
        for (;;) {
            const size_t end = std::min(block.find('\n', at), block.size());
            value += block.substr(at, end - at);
            if (!value.empty() && value.back() == '\r') value.pop_back();
            if (end + 1 >= block.size() || (block[end + 1] != ' ' && block[end + 1] != '\t')) return value;
            at = end + 1;
        }
    }
    return std::nullopt;
}

// Runs of U+FFFD made one: converters differ in how many bytes of an invalid sequence one stands for.
std::string OneReplacement(std::string text) {
    const std::string mark = "\xEF\xBF\xBD";
    for (size_t at = text.find(mark + mark); at != std::string::npos; at = text.find(mark + mark, at))
        text.erase(at, mark.size());
    return text;
}

// The code page this reader converts a declared set from, as the design names the sets: "" for
// ISO-2022-JP, whose decoder leaves text without escapes as it is; nothing for sets it leaves alone.
std::optional<std::string> ConvertingSet(const std::string& name) {
    const std::string lower = Lower(name);
    if (lower == "iso-8859-1") return "CP1252";
    if (lower == "gb2312") return "CP936";
    if (lower == "big5") return "CP950";
    if (lower.rfind("windows-", 0) == 0) return "CP" + lower.substr(8);
    if (lower.rfind("iso-2022-jp", 0) == 0) return "";
    return std::nullopt;
}

bool HasEightBit(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

std::string WithoutSpace(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\t'; }),
               text.end());
    return text;
}

// A value of the English header block: the row of `label` in an HTML or text document, "" without one.
std::string DocumentField(const std::string& document, int32_t format, const std::string& label) {
    if (format == 369) {
        const std::string start = "mso-ansi-language:EN-US'>" + label + "</span></b></td>";
        size_t at = document.find(start);
        if (at == std::string::npos) return "";
        at = document.find("word-wrap: break-word;'>", at);
        const size_t end = document.find("</span></td></tr>\r\n", at);
        std::string value = document.substr(at + 24, end - at - 24);
        // The contract escapes only the angle brackets; the repaired rows are HTML text.
        for (const auto& [escaped, character] :
             {std::pair{"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&amp;", "&"}})
            value = std::regex_replace(value, std::regex(escaped), character);
        return value;
    }
    static const std::map<std::string, std::string> kTextLabels = {
        {"From:", "From:   \t"}, {"To:", "To:     \t"},   {"Cc:", "Cc:     \t"},
        {"Bcc:", "Bcc:    \t"},  {"Sent:", "Sent:   \t"}, {"Subject:", "Subject:\t"}};
    const std::string& row = kTextLabels.at(label);
    size_t at = document.find(row);
    if (at == std::string::npos) return "";
    at += row.size();
    return document.substr(at, document.find("\r\n", at) - at);
}

class MimeCorpus : public ::testing::TestWithParam<std::tuple<bool, std::string>> {
  protected:
    void TearDown() override { krnctlReset(); }
};

TEST_P(MimeCorpus, RendersWithTheFieldsAndImagesTheOtherReaderSees) {
    const auto& [repaired, file] = GetParam();
    const auto path = kCorpus / file;
    ASSERT_TRUE(Oracle().count(file))
        << "no answer from tests/oracles/mailheaders.js (run scripts/oracles.sh)";
    const OracleFields& oracle = Oracle().at(file);
    ASSERT_FALSE(oracle.count("error")) << oracle.at("error")[0];
    std::ifstream in(path, std::ios::binary);
    const std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

    krnctlSetRepairs(repaired ? 1 : 0);
    const Loaded loaded = LoadMessage(Wide(path), 1);
    ASSERT_TRUE(loaded.status == kStatusOk || (loaded.status == kStatusUnsupported && !repaired))
        << loaded.status << loaded.error;
    std::vector<std::string> differences;
    if (loaded.status == kStatusUnsupported) {
        // A -9 must have a documented reason, seen in the raw bytes or by the other reader.
        std::smatch boundary;
        const std::string head = raw.substr(0, raw.find("\n\n"));
        const bool multipart =
            std::regex_search(head, boundary, std::regex("boundary=\"?([^\";\r\n]+)", std::regex::icase));
        const bool lf_only = multipart && raw.find("\n--" + boundary[1].str()) != std::string::npos &&
                             raw.find("\r\n--" + boundary[1].str()) == std::string::npos;
        const bool nothing = oracle.count("body") && oracle.at("body")[0] == "none";
        EXPECT_TRUE(lf_only || nothing) << "-9 without a documented reason";
        differences.push_back(
            lf_only ? "-9: a multipart whose delimiters follow LF alone (a delimiter begins with CR LF)"
                    : "-9: no text or HTML part, as the other reader finds none");
    }

    // Our values: the document's rows; for a -9, the reader's record.
    MessageDocument record;
    int32_t body_format = kBodyNone;
    if (loaded.status != kStatusOk) {
        ASSERT_EQ(ReadEmlBytes(raw, record, &body_format), kStatusOk);
    }
    auto ours = [&](const std::string& label, HeaderSlot slot) {
        return loaded.status == kStatusOk ? DocumentField(loaded.document, loaded.format, label)
                                          : std::string(record.header[slot].text());
    };
    // The first text part's set converts the fields again, but only when the parts were found.
    std::optional<std::string> reconvert;
    if (loaded.status == kStatusOk && oracle.count("charset") && !repaired)
        reconvert = ConvertingSet(oracle.at("charset")[0]);
    if (reconvert && !reconvert->empty())
        differences.push_back("fields converted once more from the first text part's set (" + *reconvert +
                              ")");
    // Repaired, that set reads only the raw 8-bit bytes, whatever set it is.
    std::string raw_set;
    if (repaired && oracle.count("charset")) {
        raw_set = Lower(oracle.at("charset")[0]);
        if (const auto page = ConvertingSet(raw_set); page && !page->empty()) raw_set = *page;
    }

    struct Field {
        std::string key;
        std::string label;
        HeaderSlot slot;
    };
    const Field fields[] = {{"from", "From:", kSlotFrom},
                            {"to", "To:", kSlotTo},
                            {"cc", "Cc:", kSlotCc},
                            {"bcc", "Bcc:", kSlotBcc},
                            {"subject", "Subject:", kSlotSubject},
                            {"date", "Sent:", kSlotSent}};
    for (const Field& field : fields) {
        SCOPED_TRACE(field.key);
        const std::string mine = ours(field.label, field.slot);
        const std::optional<std::string> raw_value =
            RawField(raw, field.label == "Sent:" ? "Date:" : field.label);
        if (!raw_value) {
            EXPECT_EQ(mine, "");
            continue;
        }
        auto finish = [&](std::string value) {
            if (reconvert && !reconvert->empty()) {
                const auto converted = Iconv(value, *reconvert, "UTF-8", true);
                if (converted) value = *converted;
            }
            return value;
        };
        const bool eight_bit = HasEightBit(*raw_value);
        const bool has_word = std::regex_search(*raw_value, std::regex(R"(=\?[^?]+\?[BbQq]\?)"));
        const bool lower_case_word =
            !repaired && std::regex_search(*raw_value, std::regex(R"(=\?[^?]+\?[qb]\?)"));
        if (eight_bit && has_word) {
            // Raw 8-bit bytes inside encoded words: the readers disagree on what they are, so only the
            // ASCII letters are compared, and every mailbox address.
            differences.push_back(field.key + ": raw 8-bit bytes inside encoded words, compared on ASCII");
            auto ascii = [](std::string text) {
                text.erase(std::remove_if(text.begin(), text.end(),
                                          [](char c) { return static_cast<unsigned char>(c) >= 0x80; }),
                           text.end());
                return text;
            };
            if (field.key == "subject") {
                EXPECT_EQ(ascii(mine), ascii(oracle.at("subject")[0]));
            } else if (oracle.count(field.key + ".address")) {
                for (const std::string& address : oracle.at(field.key + ".address"))
                    EXPECT_NE(mine.find(address), std::string::npos) << address;
            }
            continue;
        }
        if (field.key == "date" || eight_bit || lower_case_word) {
            // Date is shown as written; raw 8-bit bytes are read in the first text part's set; a word with a
            // lower-case "q" or "b" stays as written.
            if (eight_bit)
                differences.push_back(field.key + ": raw 8-bit bytes read in the first text part's set");
            if (lower_case_word)
                differences.push_back(field.key + ": encoded words with a lower-case letter kept");
            std::string expected = finish(*raw_value);
            if (eight_bit && !raw_set.empty())
                expected = Iconv(expected, raw_set, "UTF-8", true).value_or(expected);
            EXPECT_EQ(OneReplacement(mine), OneReplacement(expected));
            continue;
        }
        // White space between adjacent encoded words is kept (the standard drops it): compared without it.
        const bool spaced_words = !repaired && std::regex_search(*raw_value, std::regex(R"(\?=[ \t]+=\?)"));
        if (spaced_words) differences.push_back(field.key + ": white space between encoded words kept");
        auto same = [&](const std::string& text) { return spaced_words ? WithoutSpace(text) : text; };
        // A word in a set the contract does not convert keeps the bytes it decodes to; repaired, it is
        // converted by its name.
        std::string unconverted_set;
        bool utf7_kept = false;  // the other reader's value is then read as UTF-7
        std::smatch word;
        for (auto it = raw_value->cbegin();
             std::regex_search(it, raw_value->cend(), word, std::regex(R"(=\?([^?*]+)[^?]*\?[BQ]\?)"));
             it = word.suffix().first) {
            const std::string set = Lower(word[1].str());
            if (!repaired && !ConvertingSet(set) && set.rfind("utf-8", 0) != 0 &&
                set.rfind("us-ascii", 0) != 0)
                unconverted_set = set;
            if (repaired && set == "utf-7") utf7_kept = true;
        }
        if (utf7_kept)
            differences.push_back(field.key + ": the other reader leaves utf-7 words as UTF-7 text");
        auto expected_text = [&](const std::string& decoded) {
            std::string value = decoded;
            if (!unconverted_set.empty() && HasEightBit(value)) {
                const std::string set = std::regex_replace(unconverted_set, std::regex("-i$"), "");
                const auto bytes = Iconv(value, "UTF-8", set);
                if (bytes) value = *bytes;
            }
            if (utf7_kept) value = Iconv(value, "UTF-7", "UTF-8").value_or(value);
            return finish(value);
        };
        if (!unconverted_set.empty())
            differences.push_back(field.key + ": " + unconverted_set + " kept as decoded");
        if (field.key == "subject") {
            EXPECT_EQ(same(mine), same(expected_text(oracle.at("subject")[0])));
            continue;
        }
        // Address lists as written, decoded: every mailbox the other reader finds is in ours.
        const auto& names =
            oracle.count(field.key + ".name") ? oracle.at(field.key + ".name") : std::vector<std::string>{};
        const auto& addresses = oracle.count(field.key + ".address") ? oracle.at(field.key + ".address")
                                                                     : std::vector<std::string>{};
        for (size_t i = 0; i < addresses.size(); ++i) {
            EXPECT_NE(same(mine).find(same(addresses[i])), std::string::npos) << addresses[i];
            if (!names[i].empty()) {
                EXPECT_NE(same(mine).find(same(expected_text(names[i]))), std::string::npos) << names[i];
            }
        }
    }

    // Images the HTML refers to, as data URIs of their bytes; the others listed with the reason.
    std::vector<std::string> images;
    const std::string html = oracle.count("html") ? oracle.at("html")[0] : "";
    if (oracle.count("attachment")) {
        for (const std::string& attachment : oracle.at("attachment")) {
            std::vector<std::string> parts;
            std::istringstream split(attachment);
            for (std::string piece; std::getline(split, piece, '\t');) parts.push_back(piece);
            parts.resize(4);
            const std::string& type = parts[0];
            if (type != "image/png" && type != "image/gif" && type != "image/jpeg" && type != "image/x-wmf")
                continue;
            const std::string name = type + " " + (parts[1].empty() ? "(no location)" : parts[1]);
            if (loaded.format != 369) {
                images.push_back(name + ": not inlined, the body is not HTML");
            } else if (parts[1].empty() && !(repaired && !parts[2].empty())) {
                images.push_back(name + ": not inlined, no location (Content-Location or name=)");
            } else if (!(!parts[2].empty() && html.find("cid:" + parts[2]) != std::string::npos) &&
                       (parts[1].empty() || html.find(parts[1]) == std::string::npos)) {
                images.push_back(name + ": not inlined, the HTML does not refer to it");
            } else {
                EXPECT_NE(loaded.document.find("data:image;base64," + parts[3]), std::string::npos) << name;
                images.push_back(name + ": inlined");
            }
        }
    }
    for (const std::string& line : differences) std::cout << "  difference by design: " << line << '\n';
    for (const std::string& line : images) std::cout << "  image: " << line << '\n';
}

INSTANTIATE_TEST_SUITE_P(Corpus, MimeCorpus,
                         ::testing::Combine(::testing::Bool(), ::testing::ValuesIn(CorpusFiles())),
                         [](const ::testing::TestParamInfo<std::tuple<bool, std::string>>& info) {
                             return std::string(std::get<0>(info.param) ? "repaired_" : "contract_") +
                                    CorpusCaseName(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace tarn::testing
