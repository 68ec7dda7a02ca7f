// The command line of hubwardend:
//
//   hubwardend request [--root DIR] [--context FILE] [--user NAME] [FILE]
//   hubwardend idle    [--root DIR] [--context FILE] [--user NAME] PASS
//   hubwardend script  [--root DIR] [--context FILE] [--user NAME] FILE
//
// request: one request dictionary (XML or the older text form) from FILE,
//   or standard input when FILE is absent or "-"; the XML reply on standard
//   output, nothing when there is no reply.
// idle: one idle pass with the argument vector {"hubwardend", "idle", PASS};
//   prints the result code in decimal and a newline.
// script: an array of steps run in order in this one process:
//   {"idle": PASS} with PASS a string (or an integer, used in decimal), or
//   {"request": {...}} with an optional "user" string that overrides
//   --user for that step. Writes an XML array with one result per step:
//   {"result": code} for an idle step, {"reply": reply} for a request, and
//   an empty dictionary for a request without reply. A step of neither form
//   (or with keys of both) is not run: it is reported on standard error
//   with its index (from 0), yields an empty dictionary so that results
//   stay aligned with steps, and makes the exit status 1 once every other
//   step has run.
//
// --root defaults to "/"; --user to the user running the program. With
// --context FILE the module context is read from FILE (an XML dictionary;
// an unparsable file is moved aside to FILE.corrupt and the context starts
// empty) and written back atomically once the call and any background work
// it started are done, when it changed or the file did not hold it yet.
//
// Exit status: 0 when the calls ran; 1 when a script step was malformed or
// the context could not be stored; 2 (with a message on standard error)
// when the arguments or the input are unusable, in which case nothing ran
// and no file was changed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace hubwardend {

inline constexpr int kExitOk = 0;
inline constexpr int kExitPartial = 1;
inline constexpr int kExitUnusable = 2;

// Runs the command line args (args[0] is the program name) with the given
// streams standing for standard input, output and error.
int run_cli(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace hubwardend
