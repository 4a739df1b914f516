// Node uuids in the driver's form: "{8-4-4-4-12}" hexadecimal digits.
#pragma once

#include <string>
#include <string_view>

namespace trakctl {

// A new random (version 4) uuid, in lower case.
std::string new_uuid();

// Whether `text` is a uuid in the driver's form, in either case.
bool is_uuid(std::string_view text);

// The uuid without its braces, for use in file names.
std::string_view uuid_digits(std::string_view uuid);

}  // namespace trakctl
