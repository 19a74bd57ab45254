// The commands, and how one joins the program.
//
// A command is three things in a source file of its own:
//
//   struct SignOptions {                                   // what its words are read into, with the defaults
//     KeyOptions key;                                      //   (cng.h: KeyOptions, ProviderOptions)
//     std::wstring file;
//     std::optional<std::wstring> out;
//     bool json = false;
//   };
//   void SignSyntax(Syntax& syntax, SignOptions& options) {  // which words it takes (syntax.h)
//     syntax.Operand("FILE", options.file, "the file to sign; - is standard input");
//     AddKeyOptions(syntax, options.key);                  // --key, --nameless, --provider, --reader, --silent
//     syntax.Text("--out", options.out, "SIG", "the signature's file");
//     syntax.Json(options.json);                           // --json
//     syntax.Notes("Further paragraphs of the help.");
//   }
//   ExitStatus Sign(const SignOptions& options) { … }      // what it does
//
// and a function that adds it under a heading of the overall help, with one line on what it does (a capital at the
// beginning, no full stop at the end). That function is declared below and named in main.cpp's table:
//
//   void AddSigningCommands(Program& program) {
//     program.Add<SignOptions>(Heading::kUse, "sign", "Sign a file's hash with a key", SignSyntax, Sign);
//   }
//
// What runs says what it has to say through output.h: Say (a result, on standard output), SayTable, SayJson (the whole
// result when --json was given; nothing else goes to standard output then), Warn (standard error, with "warning:").
// Names of keys, readers and subjects go through Quoted or Printable, so that none of them can steer the terminal. It
// returns ExitStatus::kDone, or throws what failure.h has: Failure(L"Opening X", status) for a status of Windows (its
// exit status and advice come from status.cpp's table), Failure(L"text", ExitStatus::kNotFound) without one, each with
// .Advise(L"What to do about it."), and UsageError for words that do not go together.
#pragma once

#include "program.h"

namespace keldactl {

void AddKeyCommands(Program& program);               // keys, show, create, delete
void AddSigningCommands(Program& program);           // sign, verify
void AddCertificateCommands(Program& program);       // certificate, request
void AddBlobCommands(Program& program);              // export, import
void AddCipherCommands(Program& program);            // encrypt, decrypt
void AddProviderCommands(Program& program);          // provider, readers
void AddCertificateStoreCommands(Program& program);  // certificates
void AddRegistrationCommands(Program& program);      // register, unregister, status, providers
void AddCheckCommand(Program& program);              // check
void AddLogCommand(Program& program);                // log
void AddVersionCommand(Program& program);            // version

}  // namespace keldactl
