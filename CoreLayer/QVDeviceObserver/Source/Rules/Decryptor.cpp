#include "Rules/Decryptor.h"

#include <string_view>

#include "Foundation/Exception.h"
#include "Foundation/PropertyList.h"
#include "Foundation/UTF8.h"
#include "Rules/NSData_Cipher.h"

std::shared_ptr<Decryptor> Decryptor::decryptor() {
    return std::make_shared<Decryptor>();
}

qv::Value Decryptor::decryptDataIfNeededAndGetPropList(const qv::Data& data,
                                                       std::string_view pass) const {
    if (data.empty()) {
        return qv::Value();
    }
    std::optional<qv::Data> plain = dataDecryptedWithPass(data, pass);
    return tryToConvertToPlist(plain.has_value() ? *plain : data);
}

qv::Value Decryptor::tryToConvertToPlist(const qv::Data& data) const {
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (!qv::isValidUTF8(text)) {
        return qv::Value();
    }
    try {
        qv::PropertyListResult result = qv::readPropertyList(text);
        return result.ok() ? std::move(result.value) : qv::Value();
    } catch (const qv::Exception&) {
        // A parser that raises the platform's exception has refused the text.
        return qv::Value();
    }
}
