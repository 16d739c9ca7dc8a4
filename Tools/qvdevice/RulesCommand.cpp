// qvdevice rules encrypt|decrypt|check: for the people who prepare allowed-device rules files.
//   encrypt IN OUT [--pass PHRASE]   encipher a rules file as the framework reads it
//   decrypt IN OUT [--pass PHRASE]   the plain bytes of an enciphered rules file
//   check FILE|DIR [--device QVID:VID:PID[:PRODUCTNAME]]
// IN and OUT may be "-" for standard input and output; OUT is replaced atomically.
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandContext.h"
#include "Foundation/Logging.h"
#include "Foundation/PropertyList.h"
#include "Foundation/StringCompare.h"
#include "Foundation/TerminalText.h"
#include "Rules/Decryptor.h"
#include "Rules/NSData_Cipher.h"
#include "Rules/QVDeviceFilter.h"
#include "RulesCheck.h"
#include "RulesFileIO.h"

namespace qvdevice {

namespace {

struct CipherOptions {
    std::string input;
    std::string output;
    std::string pass = QVDeviceFilter::kRulesPassPhrase;
};

struct CheckOptions {
    std::string path;
    std::string device;
};

std::string displayName(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

constexpr int kExitUsage = 2;

// A rules file the framework reads is at most this big once deciphered.
constexpr std::size_t kPlainLimit = qv::kMaxPropertyListSize;

// 0 when written; an output the tool may not replace is a usage mistake, a failed write is not.
int outputExitCode(RulesOutput outcome, const char* command, const std::string& error,
                   CommandContext& context) {
    if (outcome == RulesOutput::Written) {
        return 0;
    }
    context.err << "qvdevice rules " << command << ": " << error << "\n";
    return outcome == RulesOutput::Refused ? kExitUsage : 1;
}

int runEncrypt(const CipherOptions& options, CommandContext& context) {
    std::string error;
    auto plain = readRulesInput(options.input, kPlainLimit, error);
    if (!plain) {
        context.err << "qvdevice rules encrypt: " << error << "\n";
        return kExitUsage;
    }
    if (Decryptor::decryptor()->tryToConvertToPlist(*plain).isNil()) {
        context.err << "qvdevice rules encrypt: warning: " << displayName(options.input)
                    << " is not a property list; the framework will not read it\n";
    }
    return outputExitCode(
        writeRulesOutputAtomically(options.output, dataEncryptedWithPass(*plain, options.pass),
                                   context.out, error),
        "encrypt", error, context);
}

int runDecrypt(const CipherOptions& options, CommandContext& context) {
    std::string error;
    auto enciphered = readRulesInput(options.input, encipheredSizeForLength(kPlainLimit), error);
    if (!enciphered) {
        context.err << "qvdevice rules decrypt: " << error << "\n";
        return kExitUsage;
    }
    auto plain = dataDecryptedWithPass(*enciphered, options.pass);
    if (!plain) {
        context.err << "qvdevice rules decrypt: " << displayName(options.input)
                    << " is not a rules file enciphered with this pass phrase; nothing written\n";
        return 1;
    }
    // The plain text is what enciphering hides: a new file is for its owner's eyes only.
    return outputExitCode(
        writeRulesOutputAtomically(options.output, *plain, context.out, error, 0600), "decrypt",
        error, context);
}

// "QVID:VID:PID[:PRODUCTNAME]", numbers in decimal or 0x hexadecimal.
std::optional<QVDeviceFilterSubject> parseDevice(const std::string& text) {
    QVDeviceFilterSubject device;
    std::int32_t* fields[] = {&device.quorvelID, &device.vendorID, &device.productID};
    std::size_t start = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        std::size_t end = text.find(':', start);
        std::string field = text.substr(start, end == std::string::npos ? end : end - start);
        try {
            std::size_t used = 0;
            long long value = std::stoll(field, &used, 0);
            if (used != field.size() || value < INT32_MIN || value > INT32_MAX) {
                return std::nullopt;
            }
            *fields[i] = static_cast<std::int32_t>(value);
        } catch (const std::exception&) {
            return std::nullopt;
        }
        if (end == std::string::npos) {
            return i == 2 ? std::optional(device) : std::nullopt;
        }
        start = end + 1;
    }
    device.productName = text.substr(start);
    return device;
}

const char* verdictText(std::int32_t verdict) {
    switch (verdict) {
        case QVDeviceFilter::kNotNamed:
            return "no rule names the device";
        case QVDeviceFilter::kNotAllowed:
            return "named, not allowed";
        default:
            return "allowed";
    }
}

struct LoadedRules {
    std::string source;  // a path, or "standard input"
    std::shared_ptr<QVDeviceFilter> filter;
};

// Loads the rules the way the framework does; false, after one line, when there is nothing.
bool loadRules(const std::string& path, std::vector<LoadedRules>& loaded, CommandContext& context) {
    if (path == "-") {
        std::string error;
        auto bytes = readRulesInput(path, encipheredSizeForLength(kPlainLimit), error);
        if (!bytes) {
            context.err << "qvdevice rules check: " << error << "\n";
            return false;
        }
        qv::Value rules = Decryptor::decryptor()->decryptDataIfNeededAndGetPropList(
            *bytes, QVDeviceFilter::kRulesPassPhrase);
        loaded.push_back({"standard input", std::make_shared<QVDeviceFilter>(rules)});
        return true;
    }
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        context.err << "qvdevice rules check: " << path << ": no such file or directory\n";
        return false;
    }
    if (std::filesystem::is_directory(path, error)) {
        auto filters = QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(path);
        for (const auto& filter : filters.value_or(QVDeviceFilter::FilterList{})) {
            std::filesystem::path file =
                std::filesystem::path(path) /
                (filter->identifierOfApplicationToLaunch().value_or("") + ".plist");
            loaded.push_back({file.string(), filter});
        }
        // Files the framework passes over only for the letter case of their extension.
        for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
             entry.increment(error)) {
            std::string extension = entry->path().extension().string();
            if (extension != ".plist" && qv::caseInsensitiveEqual(extension, ".plist")) {
                context.out << entry->path().string()
                            << ": not read: the extension must be \"plist\" in lower case\n";
            }
        }
        if (loaded.empty()) {
            context.out << path << ": no rules files (\"*.plist\")\n";
        }
        return true;
    }
    loaded.push_back({path, QVDeviceFilter::filterWithPathToAllowedDeviceRules(path)});
    return true;
}

// Findings for one file; answers how many there were.
std::size_t reportFile(const LoadedRules& rules, CommandContext& context) {
    const qv::Value& list = rules.filter->allowedDeviceRules();
    if (list.isNil()) {
        context.out << rules.source
                    << ": not a property list (plain, or enciphered with the framework's pass "
                       "phrase); the framework would allow every device with it\n";
        return 1;
    }
    std::vector<std::string> findings = checkRules(list);
    const qv::Array* array = list.asArray();
    context.out << rules.source << ": " << (array != nullptr ? array->size() : 0) << " rules";
    if (list.isAbsent()) {
        context.out << " (none: every device is allowed)";
    }
    context.out << (findings.empty() ? ", no problems\n" : "\n");
    for (const std::string& finding : findings) {
        context.out << rules.source << ": " << finding << "\n";
    }
    return findings.size();
}

void reportDevice(const QVDeviceFilterSubject& device, const std::vector<LoadedRules>& loaded,
                  CommandContext& context) {
    // The exclusion test traces to the system log; the verdicts below say the same, except when a
    // pattern could not decide (its time limit ran out): that is shown with the verdict.
    std::vector<std::string> undecided;
    qv::setSystemLogSink([&undecided](const std::string& line) {
        if (line.find("the device is excluded") != std::string::npos) {
            undecided.push_back(line);
        }
    });
    QVDeviceFilter::FilterList filters;
    for (const LoadedRules& rules : loaded) {
        const QVDeviceFilter& filter = *rules.filter;
        filters.push_back(rules.filter);
        std::int32_t allowed = filter.isAllowedDevice(device);
        undecided.clear();
        std::int32_t generic = filter.isExcludedGenericDevice(device);
        for (const std::string& line : undecided) {
            context.out << rules.source << ": " << qv::escapedForTerminal(line) << "\n";
        }
        context.out << rules.source << ": isAllowedDevice " << allowed << " ("
                    << verdictText(allowed) << "), isExcludedGenericDevice " << generic << " ("
                    << (generic == QVDeviceFilter::kAllowed ? "not excluded" : "excluded")
                    << "), allowesDriverRequest "
                    << (filter.allowesDriverRequest(device.vendorID) ? "YES" : "NO") << "\n";
        if (filter.hasRuleWithDeviceDetails(device)) {
            context.out << rules.source
                        << ": the verdict also depends on the device's reported GTCode and "
                           "ProductMarketingName\n";
        }
    }
    qv::setSystemLogSink(nullptr);
    std::vector<std::string> applications =
        QVDeviceFilter::applicationsToLaunchForDevice(device, filters);
    context.out << "applications to launch:";
    for (const std::string& application : applications) {
        context.out << " " << application;
    }
    context.out << (applications.empty() ? " (none)\n" : "\n");
}

int runCheck(const CheckOptions& options, CommandContext& context) {
    std::optional<QVDeviceFilterSubject> device;
    if (!options.device.empty()) {
        device = parseDevice(options.device);
        if (!device) {
            context.err << "qvdevice rules check: --device wants QVID:VID:PID[:PRODUCTNAME], "
                           "numbers in decimal or 0x hexadecimal\n";
            return kExitUsage;
        }
    }
    std::vector<LoadedRules> loaded;
    if (!loadRules(options.path, loaded, context)) {
        return kExitUsage;
    }
    std::size_t problems = 0;
    for (const LoadedRules& rules : loaded) {
        problems += reportFile(rules, context);
    }
    if (device) {
        reportDevice(*device, loaded, context);
    }
    return problems == 0 ? 0 : 1;
}

void addCipherCommand(CLI::App& rules, const char* name, const char* description,
                      int (*run)(const CipherOptions&, CommandContext&), CommandContext& context) {
    auto options = std::make_shared<CipherOptions>();
    CLI::App* command = rules.add_subcommand(name, description);
    command->add_option("IN", options->input, "input file, or - for standard input")->required();
    command->add_option("OUT", options->output, "output file, or - for standard output")
        ->required();
    command->add_option("--pass", options->pass, "pass phrase (default: the framework's)");
    command->callback([options, run, &context]() { context.exitCode = run(*options, context); });
}

void addRulesCommand(CLI::App& app, CommandContext& context) {
    CLI::App* rules = app.add_subcommand("rules", "Prepare and check allowed-device rules files");
    rules->require_subcommand(1);
    addCipherCommand(*rules, "encrypt", "Encipher a rules file", runEncrypt, context);
    addCipherCommand(*rules, "decrypt", "Decipher a rules file", runDecrypt, context);

    auto check = std::make_shared<CheckOptions>();
    CLI::App* command = rules->add_subcommand(
        "check", "Load rules as the framework does and report problems, or a device's verdicts");
    command->add_option("PATH", check->path, "rules file, directory of rules files, or -")
        ->required();
    command->add_option("--device", check->device,
                        "QVID:VID:PID[:PRODUCTNAME]: print each file's verdicts for this device");
    command->callback([check, &context]() { context.exitCode = runCheck(*check, context); });
}

const bool registered = registerCommand("rules", addRulesCommand);

}  // namespace

}  // namespace qvdevice
