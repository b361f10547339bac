// What `check` finds: each finding is written as soon as it is found.
#ifndef REPORT_FINDINGS_H
#define REPORT_FINDINGS_H

#include <memory>
#include <optional>
#include <string>

#include "report/json.h"

// What is not as it should be; what is not known is left out.
struct finding {
  const char *name;                         // which sort of finding it is: "figure_differs"
  const report_account *account = nullptr;  // whose
  std::optional<unsigned> kind = {};        // of media
  std::optional<std::int64_t> found = {};
  std::optional<std::int64_t> expected = {};
  std::optional<std::int64_t> age = {};  // seconds
  std::string where = {};                // a path, a row or an index
  std::string statement = {};            // SQL that mends it
};

// One report on one stream, which it borrows. Errors of the stream are for `report_output` to tell.
class findings_writer {
 public:
  // JSON begins at once, so nothing else may be written to the stream until `end`.
  findings_writer(FILE *stream, bool as_json, const report_platform &platform);
  // Writes the finding at once; nothing of it is kept.
  void add(const finding &one);
  // Ends the report; call once.
  void end();
  std::int64_t count() const { return count_; }

 private:
  void add_text(const finding &one);
  void add_json(const finding &one);

  FILE *stream_;
  std::int64_t count_ = 0;
  std::unique_ptr<json_stream> json_;  // null for text
};

#endif
