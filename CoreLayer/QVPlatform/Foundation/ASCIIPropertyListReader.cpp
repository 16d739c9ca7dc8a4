#include "PropertyList.h"

namespace qv {

PropertyListResult readASCIIPropertyList(std::string_view) {
    return {Value(), "ASCII property list: not supported yet"};
}

}  // namespace qv
