// The AT response reader on any bytes, fed in the pieces a serial line might deliver. The first
// byte picks the command whose answer is read and the size of the pieces; the rest is what the
// modem sends. The reader never keeps more than its bounds, only keeps printable lines, and once
// complete it has a final result whose line reads as that result. Bytes behind a final result
// are read on as the past of a second command. The field splitter and the value checks get
// every line too, and a value they accept has its kind's form.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "QVGsmKit/AtAnswerFields.h"
#include "QVGsmKit/AtAnswerValues.h"
#include "QVGsmKit/AtResponseReader.h"

namespace {

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
    std::abort();
}

const char* const kCommands[] = {"AT",
                                 "AT+CGMI",
                                 "AT+CGMM",
                                 "AT+COPS?",
                                 "AT+CSQ",
                                 "AT+CREG?",
                                 "AT^ICCID?",
                                 "ATE1;V1",
                                 "AT+CGMI;+CGMM",
                                 "AT+CGSN",
                                 "AT+CRSM=176,12258,0,0,10",
                                 "AT+CGREG?"};

bool allDigits(const std::string& text) {
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

void checkValues(const std::string& text) {
    std::string why;
    if (auto imei = qv::checkedImei(text, &why)) {
        if (imei->size() < 14 || imei->size() > 16 || !allDigits(*imei)) {
            fail("IMEI accepted in a wrong form", *imei);
        }
    }
    for (auto iccid : {qv::checkedIccid(text, &why), qv::iccidFromCrsmLine(text, &why)}) {
        if (iccid && (iccid->size() < 19 || iccid->size() > 20 || iccid->rfind("89", 0) != 0)) {
            fail("ICCID accepted in a wrong form", *iccid);
        }
    }
    for (qv::AtCharset charset :
         {qv::AtCharset::Unknown, qv::AtCharset::Ascii, qv::AtCharset::Ucs2}) {
        if (auto name = qv::operatorName(text, charset, &why); name && name->empty()) {
            fail("empty operator name accepted", text);
        }
    }
}

void checkResponse(const qv::AtResponseReader& reader) {
    const qv::AtResponse& response = reader.response();
    if (response.lines.size() > qv::AtResponseReader::kMaxLines) {
        fail("too many lines", std::to_string(response.lines.size()));
    }
    for (const std::string& line : response.lines) {
        if (line.empty() || line.size() > qv::AtResponseReader::kMaxLineLength) {
            fail("line out of bounds", line);
        }
        for (char c : line) {
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F) {
                fail("unprintable byte kept", line);
            }
        }
        if (qv::AtResponseReader::finalResultOf(line) != qv::AtFinal::None) {
            fail("final result kept as a line", line);
        }
        for (const std::string& field : qv::atFields(line)) {
            if (field.size() > line.size()) {
                fail("field longer than its line", field);
            }
        }
        checkValues(line);
    }
    if (reader.complete() &&
        qv::AtResponseReader::finalResultOf(response.finalLine) != response.final) {
        fail("final line does not read as its result", response.finalLine);
    }
    if (response.firstValue().size() > qv::AtResponseReader::kMaxLineLength) {
        fail("first value longer than a line", response.firstValue());
    }
    checkValues(response.firstValue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string command = kCommands[data[0] % (sizeof kCommands / sizeof *kCommands)];
    const std::size_t piece = 1 + data[0] / 16;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    std::size_t remaining = size - 1;

    qv::AtResponseReader reader;
    reader.begin(command);
    bool second = false;
    while (remaining > 0) {
        std::size_t now = remaining < piece ? remaining : piece;
        reader.feed(bytes, now);
        bytes += now;
        remaining -= now;
        if (reader.complete() && !second) {
            checkResponse(reader);
            reader.begin("AT+CGSN");
            second = true;
        }
    }
    checkResponse(reader);
    return 0;
}
