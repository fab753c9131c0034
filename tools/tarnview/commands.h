// tarnview's subcommands. Each takes the arguments after its name and returns the process exit status:
// 0 on success, 1 when the work failed (a one-line reason on stderr), 2 for a usage error.
#ifndef TARN_TOOLS_TARNVIEW_COMMANDS_H_
#define TARN_TOOLS_TARNVIEW_COMMANDS_H_

#include <string>
#include <vector>

namespace tarnview {

using Args = std::vector<std::string>;

int RunInfo(const Args& args);    // fltInfo through the toolkit stand-in
int RunDump(const Args& args);    // a PST's header and node B-tree
int RunCfb(const Args& args);     // a compound file's directory, or one stream
int RunRender(const Args& args);  // fltLoad through the toolkit stand-in, the document written out
int RunList(const Args& args);    // a PST's messages in the filter's walk order
int RunExport(const Args& args);  // every message of each source as a document file, in one pass
int RunParts(const Args& args);   // an Internet message's MIME tree and what became of each part

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_COMMANDS_H_
