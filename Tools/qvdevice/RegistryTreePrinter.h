// How qvdevice shows a registry tree: ioreg's text layout, or JSON.
#pragma once

#include <ostream>
#include <string>

#include "Foundation/JsonValue.h"
#include "IOKit/Registry.h"

namespace qvdevice {

qv::Json registryTreeToJson(const qv::Registry::EntryView& view);

// ioreg's layout: "+-o Name  <class Class>", properties below in braces.
void printRegistryTree(std::ostream& out, const qv::Registry::EntryView& view,
                       const std::string& indent = "", bool last = true);

}  // namespace qvdevice
