#include "ModemModelTable.h"

#include <algorithm>
#include <cctype>
#include <limits>

#include "Foundation/BoundedFileReader.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Platform.h"

namespace qv {

namespace {

constexpr std::size_t kMaxTableBytes = 1024 * 1024;

std::string folded(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
        text.remove_prefix(1);
    }
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
        text.remove_suffix(1);
    }
    std::string result(text);
    for (char& c : result) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

}  // namespace

ModemModelTable ModemModelTable::fromResources(std::string* error) {
    std::optional<std::string> path = Bundle::pathForResource("ModemModels", "json");
    if (!path) {
        *error = "the resource ModemModels.json is missing";
        return {};
    }
    std::optional<ModemModelTable> table = fromFile(*path, error);
    return table ? std::move(*table) : ModemModelTable();
}

std::optional<ModemModelTable> ModemModelTable::fromFile(const std::string& path,
                                                         std::string* error) {
    std::string reason;
    std::optional<std::string> text =
        readFileUpTo(path, kMaxTableBytes, FileKinds::RegularOnly, &reason);
    if (!text) {
        *error = path + ": " + reason;
        return std::nullopt;
    }
    std::optional<ModemModelTable> table = fromJsonText(*text, &reason);
    if (!table) {
        *error = path + ": " + reason;
    }
    return table;
}

std::optional<ModemModelTable> ModemModelTable::fromJsonText(const std::string& text,
                                                             std::string* error) {
    std::optional<Json> parsed = parseJsonText(text, error);
    if (!parsed) {
        return std::nullopt;
    }
    const Json& json = *parsed;
    if (!json.is_object() || !json.contains("models") || !json["models"].is_array()) {
        *error = "not a JSON object with a \"models\" list";
        return std::nullopt;
    }
    std::vector<Row> rows;
    std::size_t index = 0;
    for (const Json& item : json["models"]) {
        std::string where = "models[" + std::to_string(index++) + "]";
        if (!item.is_object() || !item.contains("maker") || !item["maker"].is_string() ||
            !item.contains("model") || !item["model"].is_string() || !item.contains("quorvelID") ||
            !item["quorvelID"].is_number_integer()) {
            *error = where + " needs a \"maker\" and a \"model\" string and a \"quorvelID\"";
            return std::nullopt;
        }
        std::int64_t id = item["quorvelID"].get<std::int64_t>();
        if (id <= 0 || id > std::numeric_limits<std::int32_t>::max()) {
            *error = where + ".quorvelID must be a positive 32-bit integer";
            return std::nullopt;
        }
        Row row{folded(item["maker"].get<std::string>()), folded(item["model"].get<std::string>()),
                static_cast<std::int32_t>(id)};
        if (row.maker.empty() || row.model.empty()) {
            *error = where + ": maker and model must not be empty";
            return std::nullopt;
        }
        rows.push_back(std::move(row));
    }
    return ModemModelTable(std::move(rows));
}

std::optional<std::int32_t> ModemModelTable::lookup(const std::string& makerAnswer,
                                                    const std::string& modelAnswer) const {
    std::string maker = folded(makerAnswer);
    std::string model = folded(modelAnswer);
    for (const Row& row : rows_) {
        if (model == row.model && maker.find(row.maker) != std::string::npos) {
            return row.quorvelID;
        }
    }
    return std::nullopt;
}

}  // namespace qv
