// The command `snapshot`: the state at a moment, kept for comparisons.
// Reads the platform; writes one file. The reader has a file of its own.
#include "report/snapshot.h"

#include <new>

#include "report/command.h"
#include "report/compressed.h"
#include "report/json.h"
#include "report/output.h"

namespace {

const poptOption no_options[] = {POPT_TABLEEND};

report_status run(const std::vector<std::string> &words) {
  if (words.size() != 1) throw report_trouble("snapshot needs the name of one file to write");
  const report_platform platform = collect();
  report_output out(words[0].c_str());
  c_file compressed = compress_into(out.stream());
  // All accounts and kinds, whatever later questions are about.
  write_document(compressed.get(), platform, [&](const auto &visit) {
    for (const report_account &account : platform.accounts) visit(account);
  });
  const bool whole = std::ferror(compressed.get()) == 0 && std::fclose(compressed.release()) == 0;
  // If the file's own stream has no error, there was no memory to compress.
  if (!whole && std::ferror(out.stream()) == 0) throw std::bad_alloc();
  out.commit();
  return REPORT_OK;
}

}  // namespace

const report_command snapshot_command = {
    .name = "snapshot",
    .arguments = "FILE",
    .summary = "Keeps the state of all accounts in a compressed file",
    .details =
        "\n"
        "`diff` compares such files. They hold the JSON of `list`; zstd unpacks them.\n",
    .options = no_options,
    .run = run,
};
