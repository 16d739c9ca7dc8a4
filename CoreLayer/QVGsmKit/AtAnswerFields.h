// Reading the fields of AT information lines such as `+COPS: 0,0,"Vodafone.de",2` or
// `+CSQ: 18,99`: the prefix up to the colon is dropped, fields are split at commas outside quotes,
// and quotes and blanks around a field are removed.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv {

std::vector<std::string> atFields(std::string_view line);
// A field as a small non-negative integer (at most 9 digits); nullopt otherwise.
std::optional<int> atIntegerField(const std::vector<std::string>& fields, std::size_t index);
// The access technology number of +COPS (27.007) as a name: "GSM", "UMTS", "HSPA", "LTE"...;
// empty for a number it does not know.
std::string radioAccessTechnologyName(int act);

}  // namespace qv
