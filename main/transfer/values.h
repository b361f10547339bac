// Values of transfer.conf. Internal to main/transfer/.
#ifndef MAIN_TRANSFER_VALUES_H
#define MAIN_TRANSFER_VALUES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "main/transfer/config.h"

// Whether the whole text is a decimal number between two others; it goes to `number`.
bool read_number(std::string_view text, std::int64_t least, std::int64_t most,
                 std::int64_t &number);

// The fields of a value between white space.
std::vector<std::string_view> fields_of(std::string_view value);

// Between double quotes, for a message.
std::string quoted(std::string_view text);

// Adds the location "name endpoint region bucket [path|host [prefix]]". Empty, or what is wrong.
std::string read_location(std::string_view value, transfer_config &config);

#endif
