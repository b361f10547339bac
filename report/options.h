// The values of options, read strictly: each function throws report_trouble for what it does not
// understand, with the option's name as typed.
#ifndef REPORT_OPTIONS_H
#define REPORT_OPTIONS_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "main/quota/kinds.h"

// Nothing for an option that was not given, whose text is null.
std::optional<std::int64_t> number_option(const char *name, const char *text, std::int64_t least,
                                          std::int64_t most);
std::optional<double> decimal_option(const char *name, const char *text);

// The place of the word in the list; `otherwise` for an option that was not given.
size_t choice_option(const char *name, const char *text, std::initializer_list<const char *> words,
                     size_t otherwise);

// Names joined with commas: "fax,music". All kinds when the option was not given.
kind_set kinds_option(const char *name, const char *text);

// Levels by number or name, joined with commas: "client,100". Empty when the option was not given.
std::vector<int> levels_option(const char *name, const char *text);

// Throws when there are more words than a command takes.
void take_no_words(const std::vector<std::string> &words);

// The number that the whole text is, in decimal.
std::optional<std::uint64_t> whole_number(std::string_view text);

// A level by its name; its number for one without a name.
std::string name_of_level(int level);

#endif
