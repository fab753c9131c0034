// HTML recovered from an RTF body of 10 MiB (and of 1 MiB), as a message file's reader does it: the
// de-encapsulation and both clean-ups. Two bodies, made here so that their size is exact: one shaped like a
// long Outlook HTML message (tag groups, RTF-only material, text with a few hex and Unicode escapes, some
// long divs), and one whose text is a single run of hex escapes (a Shift-JIS message of that size written as
// escapes only). With TARN_BENCH_BODY_DIR set, the bodies are also written there (message-10MiB.rtf,
// hex-run-1MiB.rtf, ...) for the comparison that bench/run.sh runs.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "pst/render/encapsulated_html.h"
#include "pst/render/text_buffer.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;

constexpr std::string_view kHead =
    "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl\r\n{\\f0\\fswiss\\fcharset0 Arial;}\r\n"
    "{\\f1\\fmodern Courier New;}\r\n{\\f2\\fswiss\\fcharset128 MS PGothic;}}\r\n"
    "{\\colortbl\\red0\\green0\\blue0;\\red5\\green99\\blue193;}\r\n\\uc1\\pard\\plain\\deftab360 \\f0\\fs24 "
    "\r\n"
    "{\\*\\htmltag19 <html>}{\\*\\htmltag34 <head>}{\\*\\htmltag58 </head>}\r\n"
    "{\\*\\htmltag50 <body lang=EN-US link=\"#0563C1\">}{\\*\\htmltag96 <div class=WordSection1>}\r\n";
constexpr std::string_view kTail =
    "{\\*\\htmltag104 </div>}{\\*\\htmltag58 </body>}{\\*\\htmltag27 </html>}}\r\n";

// One paragraph of a Word-made message, as its RTF carries it.
constexpr std::string_view kParagraph =
    "{\\*\\htmltag64 <p class=MsoNormal>}{\\htmlrtf {\\htmlrtf0 {\\*\\htmltag148 <span "
    "style='font-size:11.0pt'>}Gr\\'fc\\'dfe aus M\\'fcnchen, the quarterly figures are attached "
    "\\u8211?\\htmlrtf -\\htmlrtf0  see the <b>table</b> below. {\\*\\htmltag244 <o:p>}{\\*\\htmltag252 "
    "</o:p>}{\\*\\htmltag156 </span>}\\htmlrtf\\par}\\htmlrtf0\r\n{\\*\\htmltag72 </p>}\r\n"
    "{\\*\\htmltag64 <p class=MsoListParagraph>}{\\*\\htmltag241 <![if !supportLists]>}1.\\tab "
    "{\\*\\htmltag241 <![endif]>}Item{\\*\\htmltag72 </p>}\r\n";

std::string MessageBody(size_t size) {
    std::string body(kHead);
    size_t paragraphs = 0;
    while (body.size() + kTail.size() < size) {
        // Every thousandth paragraph sits in a div long enough to be trimmed.
        if (++paragraphs % 1000 == 0) {
            body += "{\\*\\htmltag96 <div>}&nbsp;";
            for (int i = 0; i < 100 && body.size() < size; ++i) body += kParagraph;
            body += "{\\*\\htmltag104 </div>}";
        } else {
            body += kParagraph;
        }
    }
    body.resize(size - kTail.size());
    return body += kTail;
}

std::string HexRunBody(size_t size) {
    std::string body(kHead);
    body += "{\\*\\htmltag64 <p>}\\f2 ";
    constexpr std::string_view kEscape = "\\'82\\'a0";  // HIRAGANA LETTER A in Shift-JIS
    const size_t escapes = (size - body.size() - kTail.size() - 32) / kEscape.size();
    for (size_t i = 0; i < escapes; ++i) body += kEscape;
    body += "{\\*\\htmltag72 </p>}";
    body.resize(size - kTail.size(), ' ');
    return body += kTail;
}

void Run(benchmark::State& state, const std::string& rtf) {
    size_t html_bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        tarn::GrowBuffer buffer;
        tarn::CountedString body;
        if (buffer.Init(rtf.size() + 1, 0) != 1 || buffer.Append(rtf) != 1) {
            state.SkipWithError("no memory for the body");
            return;
        }
        buffer.MoveInto(body);
        state.ResumeTiming();
        if (tarn::DeencapsulateHtml(&body) != 1 || tarn::RewriteConditionalComments(&body) != 1 ||
            tarn::TrimLongDivs(&body) != 1) {
            state.SkipWithError("the de-encapsulation failed");
            return;
        }
        html_bytes = body.size();
        benchmark::DoNotOptimize(body.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * rtf.size()));
    state.counters["rtf_MiB"] = static_cast<double>(rtf.size()) / (1024 * 1024);
    state.counters["html_MiB"] = static_cast<double>(html_bytes) / (1024 * 1024);
}

// The bodies by size in MiB, made once.
const std::string& Message(size_t mib) {
    static const std::string ten = MessageBody(10 * kMiB), one = MessageBody(kMiB);
    return mib == 10 ? ten : one;
}
const std::string& HexRun(size_t mib) {
    static const std::string ten = HexRunBody(10 * kMiB), one = HexRunBody(kMiB);
    return mib == 10 ? ten : one;
}

void BM_DeencapsulateMessage(benchmark::State& state) { Run(state, Message(state.range(0))); }
void BM_DeencapsulateHexRun(benchmark::State& state) { Run(state, HexRun(state.range(0))); }
// 10 MiB is the size asked of us; 1 MiB is what the other de-encapsulator is timed on.
BENCHMARK(BM_DeencapsulateMessage)->Arg(10)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeencapsulateHexRun)->Arg(10)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (const char* env = std::getenv("TARN_BENCH_BODY_DIR")) {
        const std::string dir(env);
        for (const size_t mib : {10, 1}) {
            const auto path = [&](const char* stem) {
                std::string out = dir;
                out.append("/").append(stem).append("-").append(std::to_string(mib)).append("MiB.rtf");
                return out;
            };
            std::ofstream(path("message"), std::ios::binary) << Message(mib);
            std::ofstream(path("hex-run"), std::ios::binary) << HexRun(mib);
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
