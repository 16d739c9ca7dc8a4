// qvdevice::IdentifierMasker: hides what identifies a user's stick, SIM or line in a recording
// (USB serial numbers, IMEI, IMSI, ICCID, phone numbers, MAC addresses) while keeping each value's
// length and form, so that the framework reads the masked recording as it read the real one: an
// IMEI stays 15 digits with a valid check digit, a MAC address six colon-separated hex bytes.
//
// One masker serves one recording: a value met twice (in a registry property, an AT answer and a
// udev value) is masked the same way each time, and two different values never share a mask.
// Masks come from a keyed hash of the value, so nothing of the original can be read back from
// them without the key, which lives only as long as the masker.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "Foundation/Value.h"

namespace qvdevice {

class IdentifierMasker {
  public:
    // `key` seeds the masks; the record command takes a fresh one per recording.
    explicit IdentifierMasker(std::uint64_t key);

    // A whole value known to be an identifier (a serial number property, a MAC address): every
    // digit, letter and hex digit replaced, everything else kept.
    std::string maskWhole(std::string_view value);
    // Free text (an AT answer line, a udev value): only what looks like an identifier is masked:
    // runs of 14 to 16 digits (IMEI, IMSI), of 18 to 22 digits or hex (ICCID), a "+" and 6 to 15
    // digits (a phone number), MAC addresses, and every digit run of 6 or more in a "+CNUM:" line
    // (the SIM's own numbers). Versions, signal values and dates are left alone.
    std::string maskText(std::string_view text);
    // Digits known to be an IMEI (a value named "IMEI", the answer to AT+CGSN): masked as one,
    // the type allocation code kept and a valid check digit made, whether or not the original
    // had one. Other text goes to maskText().
    std::string maskImei(std::string_view digits);
    // A property value: keys naming an identifier are masked whole, other strings as text;
    // arrays and dictionaries are walked (at most `kMaxDepth` levels; deeper is left as it is).
    qv::Value maskValue(const qv::Value& value, std::string_view key = {});

    // Whether a property or udev key names an identifier ("USB Serial Number", "ID_SERIAL",
    // "serial", "IMEI", "address", ...).
    static bool isIdentifierKey(std::string_view key);
    // The Luhn check over every digit of `digits` (the last one the check digit).
    static bool luhnValid(std::string_view digits);

    static constexpr int kMaxDepth = 64;

  private:
    std::string maskDigits(std::string_view digits, bool keepLuhn, std::size_t keepPrefix);
    std::string maskCharacters(std::string_view value, std::size_t keepPrefix);
    std::string remember(std::string_view original, std::string candidate);
    std::uint64_t draw(std::string_view original, int attempt) const;
    qv::Value maskValueAt(const qv::Value& value, std::string_view key, int depth);

    std::uint64_t key_;
    std::map<std::string, std::string, std::less<>> masks_;
    std::set<std::string, std::less<>> used_;
};

}  // namespace qvdevice
