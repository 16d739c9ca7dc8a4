// Small helpers for the rules tests: a scratch directory, whole-file reads and writes, and the
// openssl command line.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Foundation/Task.h"
#include "Foundation/Value.h"

namespace rulestest {

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "qv-rules-test-XXXXXX").string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (mkdtemp(buffer.data()) != nullptr) {
            path_ = buffer.data();
        }
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string file(const std::string& name) const { return (path_ / name).string(); }
    std::string path() const { return path_.string(); }

  private:
    std::filesystem::path path_;
};

inline void writeFile(const std::string& path, const qv::Data& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

inline void writeFile(const std::string& path, const std::string& text) {
    writeFile(path, qv::Data(text.begin(), text.end()));
}

inline qv::Data readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return qv::Data(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string hex(const std::uint8_t* bytes, std::size_t count) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

// The openssl command line from PATH, or "" when it is not installed.
inline std::string opensslPath() {
    const char* path = std::getenv("PATH");
    std::stringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        std::filesystem::path candidate = std::filesystem::path(directory) / "openssl";
        if (!directory.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate.string();
        }
    }
    return "";
}

// `openssl enc -aes-128-cbc -nopad` in either direction on whole files.
inline qv::TaskResult runOpenSSLCipher(bool encipher, const std::string& keyHex,
                                       const std::string& vectorHex, const std::string& in,
                                       const std::string& out) {
    std::vector<std::string> arguments = {"enc"};
    if (!encipher) {
        arguments.push_back("-d");
    }
    arguments.insert(arguments.end(), {"-aes-128-cbc", "-nopad", "-K", keyHex, "-iv", vectorHex,
                                       "-in", in, "-out", out});
    return qv::PosixTaskLauncher().run(opensslPath(), arguments);
}

}  // namespace rulestest
