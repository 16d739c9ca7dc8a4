#include "RegistryTreePrinter.h"

#include "Foundation/TerminalText.h"

namespace qvdevice {

qv::Json registryTreeToJson(const qv::Registry::EntryView& view) {
    qv::Json node = qv::Json::object();
    node["name"] = view.name;
    node["class"] = view.className;
    node["properties"] = qv::jsonFromValue(view.properties);
    qv::Json children = qv::Json::array();
    for (const auto& child : view.children) {
        children.push_back(registryTreeToJson(child));
    }
    node["children"] = std::move(children);
    return node;
}

void printRegistryTree(std::ostream& out, const qv::Registry::EntryView& view,
                       const std::string& indent, bool last) {
    // Names and values come from devices and timeline files: no control reaches the terminal.
    out << indent << "+-o " << qv::escapedForTerminal(view.name) << "  <class "
        << qv::escapedForTerminal(view.className) << ">\n";
    std::string inner = indent + (last ? "  " : "| ");
    std::string bar = view.children.empty() ? "  " : "| ";
    const qv::Dictionary* props = view.properties.asDictionary();
    if (props != nullptr && !props->empty()) {
        out << inner << bar << "{\n";
        for (const auto& [key, value] : *props) {
            std::string text =
                value.isString() ? qv::quotedDescription(*value.asString()) : value.description();
            out << inner << bar << "  \"" << qv::escapedForTerminal(key)
                << "\" = " << qv::escapedForTerminal(text) << "\n";
        }
        out << inner << bar << "}\n";
    }
    for (std::size_t i = 0; i < view.children.size(); ++i) {
        printRegistryTree(out, view.children[i], inner, i + 1 == view.children.size());
    }
}

}  // namespace qvdevice
