#include "QVCapabilitySet.h"

#include "Foundation/Value.h"

std::string describeCapabilitySet(const QVCapabilitySet& capabilities) {
    std::string out = "{(";
    bool first = true;
    for (const auto& capability : capabilities) {
        out += first ? "\n    " : ",\n    ";
        out += qv::quotedDescription(capability);
        first = false;
    }
    out += capabilities.empty() ? ")}" : "\n)}";
    return out;
}
