// Decryptor: turns the bytes of a rules file into a property list, deciphering them first when
// they are an enciphered rules file of the given pass phrase. Holds no state; any thread.
#pragma once

#include <memory>
#include <string_view>

#include "Foundation/Object.h"
#include "Foundation/Value.h"

class Decryptor : public qv::Object {
  public:
    static std::shared_ptr<Decryptor> decryptor();

    // nil for empty input. Bytes that do not decipher are read as a plain file; bytes that do
    // are not retried as plain text when they turn out not to be a property list.
    qv::Value decryptDataIfNeededAndGetPropList(const qv::Data& data, std::string_view pass) const;

    // The bytes as UTF-8 text parsed as an XML or old-style text property list; nil when they
    // are not valid UTF-8 or not a property list.
    qv::Value tryToConvertToPlist(const qv::Data& data) const;
};
