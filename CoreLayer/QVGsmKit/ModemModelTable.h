// qv::ModemModelTable: which Quorvel ID a modem is, from what it answers to AT+CGMI (the maker)
// and AT+CGMM (the model). Read from the resource "ModemModels.json":
//   {"models": [{"maker": "huawei", "model": "E1750", "quorvelID": 320, "source": "..."}, ...]}
// A row matches when the maker answer contains the row's maker and the model answer equals the
// row's model, both without regard to letter case and surrounding blanks. The first match wins.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv {

class ModemModelTable {
  public:
    struct Row {
        std::string maker;
        std::string model;
        std::int32_t quorvelID = 0;
    };

    ModemModelTable() = default;
    explicit ModemModelTable(std::vector<Row> rows) : rows_(std::move(rows)) {}

    // The table in the framework's resources; an empty table, with the reason, when it is
    // missing or malformed.
    static ModemModelTable fromResources(std::string* error);
    // nullopt and the reason for a file that is not such a table.
    static std::optional<ModemModelTable> fromFile(const std::string& path, std::string* error);
    static std::optional<ModemModelTable> fromJsonText(const std::string& text, std::string* error);

    std::optional<std::int32_t> lookup(const std::string& makerAnswer,
                                       const std::string& modelAnswer) const;
    const std::vector<Row>& rows() const { return rows_; }

  private:
    std::vector<Row> rows_;
};

}  // namespace qv
