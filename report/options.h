// Options that several commands have, and the values of all, read strictly: each function throws
// report_trouble for what it does not understand, with the option's name as typed.
#ifndef REPORT_OPTIONS_H
#define REPORT_OPTIONS_H

#include <popt.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "main/quota/kinds.h"

// As typed; null for what was not given. A command has a table of its own for the others.
struct shared_options {
  char *format = nullptr;
  char *kind = nullptr;
  char *level = nullptr;
  char *top = nullptr;
  char *output = nullptr;
  int human = 0;
};
// Filled by popt before the command runs, and only read after that.
inline shared_options typed;

// Rows of their tables.
// `words` is the help, which names the formats of the command.
constexpr poptOption format_row(const char *words) {
  return {"format", 'f', POPT_ARG_STRING, &typed.format, 0, words, "FORMAT"};
}
inline constexpr poptOption list_format_row =
    format_row("table (the default), json, jsonl, csv or tsv");
constexpr poptOption top_row(const char *meaning) {
  return {"top", 'n', POPT_ARG_STRING, &typed.top, 0, meaning, "N"};
}
inline constexpr poptOption human_row = {
    "human", 'h', POPT_ARG_NONE, &typed.human, 0, "Sizes and ages with units, in a table", nullptr};
inline constexpr poptOption kind_row = {
    "kind",      'k', POPT_ARG_STRING,
    &typed.kind, 0,   "Only these kinds: fax, sound, recording, voicemail, music",
    "KIND,..."};
inline constexpr poptOption level_row = {
    "level",      'l', POPT_ARG_STRING,
    &typed.level, 0,   "Only these levels: reseller, client, user, or 10, 50, 100",
    "LEVEL,..."};
inline constexpr poptOption output_row = {
    "output", 'o', POPT_ARG_STRING, &typed.output, 0, "Write to a file, whole or not at all",
    "FILE"};

// In the order of the words of --format.
enum class report_format { table, json, jsonl, csv, tsv };

// By default the table, which alone may be for people.
report_format typed_format();

// Nothing when it was not given.
std::optional<size_t> typed_top(std::int64_t least = 1);

// Names joined with commas: "fax,music". All kinds when the option was not given.
kind_set typed_kinds();

// Levels by number or name, joined with commas: "client,100". Empty when the option was not given.
std::vector<int> typed_levels();

// Nothing for an option that was not given, whose text is null.
std::optional<std::int64_t> number_option(const char *name, const char *text, std::int64_t least,
                                          std::int64_t most);
// A decimal number, which is neither infinite nor no number.
std::optional<double> decimal_option(const char *name, const char *text);

// The place of the word in the list; `otherwise` for an option that was not given.
size_t choice_option(const char *name, const char *text, std::initializer_list<const char *> words,
                     size_t otherwise);

// Throws when there are more words than a command takes.
void take_no_words(const std::vector<std::string> &words);

// A level by its name; its number for one without a name.
std::string name_of_level(int level);

#endif
