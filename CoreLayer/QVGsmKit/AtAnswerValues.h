// Checks of the values a modem reports, before the framework hands them on: a value that does not
// have the form its kind must have is nil, with the reason in words, never a guess.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qv {

// An IMEI answer's value (labels already dropped by AtResponse::firstValue): quotes and a trailing
// ",..." part are removed (Option answers "357516032005989,TR19A8P11R": ModemManager
// src/plugins/option/mm-broadband-modem-option.c); 14 to 16 digits remain, or nullopt.
std::optional<std::string> checkedImei(std::string_view value, std::string* why);

// An ICCID answer's value (labels dropped): quotes and blanks removed; digits, with A-F allowed
// after the sixth (operators that use them: ModemManager src/mm-modem-helpers.c,
// mm_3gpp_parse_iccid); a 20-digit value beginning "98" has its digit pairs swapped (Huawei's
// "^ICCID:" and the raw EF-ICCID of +CRSM); a trailing F filler is dropped; 19 or 20 digits
// beginning "89" (ISO/IEC 7812 telecommunications) remain, or nullopt.
std::optional<std::string> checkedIccid(std::string_view value, std::string* why);

// The ICCID in the answer line to "AT+CRSM=176,12258,0,0,10" (READ BINARY of EF-ICCID, ETSI TS
// 102 221 13.2): `+CRSM: sw1,sw2,"hex"` with sw1 144 (0x90) and sw2 0, or sw1 0x91, 0x92, 0x9F,
// as ModemManager src/mm-base-sim.c accepts; the hex is the BCD with swapped digits.
std::optional<std::string> iccidFromCrsmLine(std::string_view line, std::string* why);

// UCS2 text written as hex (27.007 +CSCS "UCS2": four hex digits per UTF-16 unit) as UTF-8;
// nullopt when `hex` is no such text (odd length, a non-hex digit, a control character, a broken
// surrogate pair).
std::optional<std::string> decodedUcs2Hex(std::string_view hex);

enum class AtCharset { Unknown, Ascii, Ucs2 };

// An operator name as +COPS gave it, under the character set the modem said it uses: UCS2 hex is
// decoded; a name that is not hex stays as it is (Huawei answers ASCII even in UCS2: ModemManager
// src/mm-modem-helpers.c, mm_3gpp_normalize_operator); with the set unknown, hex is decoded only
// when every unit is printable Latin-1 ("0056006500720069007A006F006E" is "Verizon"). "Unknown"
// (Novatel's word for no name) and an empty name give nullopt.
std::optional<std::string> operatorName(std::string_view raw, AtCharset charset, std::string* why);

// The +CSQ rssi: 0 to 31 as given; 99 (not known or not detectable, 27.007 8.5) and anything
// else give nullopt.
std::optional<int> signalQuality(int rssi, std::string* why);

}  // namespace qv
