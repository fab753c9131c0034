// tarnview: plays the toolkit for a person. It loads sources through the filter's entry points the way
// the toolkit would, and offers the store-level views that help when a file misbehaves.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "common/terminal_text.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/language.h"

namespace {

struct Command {
    const char* name;
    int (*run)(const tarnview::Args&);
    const char* usage;
};

const Command kCommands[] = {
    {"info", tarnview::RunInfo,
     "info FILE [--message N] [--lang LANGID] [--compat] [--json] [--no-layout]   describe a source as the "
     "toolkit sees it, its pages laid out"},
    {"dump", tarnview::RunDump, "dump FILE [--json]                 a PST's header and every node"},
    {"render", tarnview::RunRender,
     "render FILE [--message N] [--text] [--lang LANGID] [--compat] [-o OUT]\n"
     "    [--pdf | --png [--page N] [--dpi D]]   write the document the toolkit's loader receives, or "
     "its laid-out PDF, or one page as a picture"},
    {"list", tarnview::RunList,
     "list FILE [--json] [--jobs N]      a PST's messages in the filter's order, read on N threads"},
    {"export", tarnview::RunExport,
     "export SOURCE... -o DIR [--text] [--lang LANGID] [--compat] [--attachments] [--force] [--resume]\n"
     "    [--jobs N] [--pdf]   every message as a document file (and its laid-out PDF), with manifest.jsonl"},
    {"parts", tarnview::RunParts,
     "parts FILE [--json]                an Internet message's MIME parts and what became of each"},
    {"cfb", tarnview::RunCfb, "cfb FILE [PATH] [--json]           a compound file's directory, or a stream"},
};

void PrintHelp(FILE* out) {
    std::fprintf(out, "usage: tarnview COMMAND [ARGS]\n\ncommands:\n");
    for (const auto& c : kCommands) std::fprintf(out, "  %s\n", c.usage);
    std::fprintf(out,
                 "\n--lang LANGID sets the kernel's user-interface language for the call (default: the\n"
                 "TARNKRN_LANGUAGE environment variable, else 0x0409); the header block has labels in:\n%s",
                 tarnview::LanguageHelp().c_str());
    std::fprintf(
        out,
        "\ninfo, render and export repair documents for real files (see the README); --compat gives\n"
        "the toolkit's contract documents byte for byte instead.\n");
    std::fprintf(out, "\n'tarnview COMMAND --help' for one command.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        PrintHelp(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    for (const auto& c : kCommands) {
        if (std::strcmp(argv[1], c.name) != 0) continue;
        tarnview::Args args(argv + 2, argv + argc);
        for (const auto& a : args) {
            if (a == "--help" || a == "-h") {
                std::printf("usage: tarnview %s\n", c.usage);
                if (std::strstr(c.usage, "--lang") != nullptr)
                    std::printf("\n--lang LANGID (hexadecimal); the header block has labels in:\n%s",
                                tarnview::LanguageHelp().c_str());
                return 0;
            }
        }
        try {
            return c.run(args);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "tarnview %s: %s\n", c.name, tarn::TerminalText(e.what()).c_str());
            return 1;
        }
    }
    std::fprintf(stderr, "tarnview: unknown command '%s' (try --help)\n", argv[1]);
    return 2;
}
