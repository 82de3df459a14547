#include "fabric_model/identifiers.h"

#include <sstream>

namespace {
// The hundred two-digit pairs, so a number is written two digits at a time.
constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

unsigned DecimalDigits(uint64_t value) {
    unsigned digits = 1;
    while (value >= 10) {
        value /= 10;
        ++digits;
    }
    return digits;
}
}  // namespace

std::string ZeltaExtJobId::ToString() const {
    static const std::string kDefaultPrefix = "default";
    unsigned digits = DecimalDigits(job_number);
    std::string number(digits, '0');
    uint64_t value = job_number;
    size_t pos = digits;
    while (value >= 100) {
        unsigned pair = static_cast<unsigned>(value % 100) * 2;
        value /= 100;
        number[--pos] = kDigitPairs[pair + 1];
        number[--pos] = kDigitPairs[pair];
    }
    if (value >= 10) {
        unsigned pair = static_cast<unsigned>(value) * 2;
        number[--pos] = kDigitPairs[pair + 1];
        number[--pos] = kDigitPairs[pair];
    } else {
        number[--pos] = static_cast<char>('0' + value);
    }
    const std::string& prefix = id_prefix.empty() ? kDefaultPrefix : id_prefix;
    return prefix + "_" + number;
}

std::string PortInfo::PlaneToString() const {
    return std::to_string(static_cast<unsigned>(plane));
}

std::string PortInfo::GetName() const {
    std::string plane_suffix;
    if (plane_known && plane_enabled) {
        plane_suffix = " PLN:" + PlaneToString();
    }
    std::ostringstream stream;
    stream << name << " GUID:0x" << std::hex << guid << std::dec << plane_suffix;
    return stream.str();
}
