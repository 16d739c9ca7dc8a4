#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Foundation/Task.h"
#include "Rules/NSData_Cipher.h"
#include "Rules/RulesTestSupport.h"
#include "Support/ToolRunner.h"

namespace {

const char* const kRules =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><array>"
    "<dict><key>QuorvelID</key><integer>5059</integer><key>Allowed</key><integer>0</integer></dict>"
    "<dict><key>VendorID</key><integer>4505</integer></dict>"
    "</array></plist>\n";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class RulesCommandTests : public ::testing::Test {
  protected:
    rulestest::TemporaryDirectory dir;
};

TEST_F(RulesCommandTests, EncryptAndDecryptRoundTripAndInteroperateWithOpenSSL) {
    ASSERT_FALSE(rulestest::opensslPath().empty()) << "openssl command line missing";
    rulestest::writeFile(dir.file("rules.plist"), kRules);
    ASSERT_EQ(
        runQvdevice({"rules", "encrypt", dir.file("rules.plist"), dir.file("rules.enc")}).code, 0);
    qv::Data enciphered = rulestest::readFile(dir.file("rules.enc"));
    EXPECT_EQ(enciphered.size(), encipheredSizeForLength(std::string(kRules).size()));
    ASSERT_EQ(runQvdevice({"rules", "decrypt", dir.file("rules.enc"), dir.file("back.plist")}).code,
              0);
    EXPECT_EQ(rulestest::readFile(dir.file("back.plist")),
              rulestest::readFile(dir.file("rules.plist")));

    // The openssl command line reads the tool's file (after the vector)...
    const std::string key = "b0a0d26213c2e419c9f83f2ce91d322a";  // SHA-1("FrimbleJonks")[0..15]
    rulestest::writeFile(dir.file("body.bin"), qv::Data(enciphered.begin() + 16, enciphered.end()));
    ASSERT_EQ(rulestest::runOpenSSLCipher(false, key, rulestest::hex(enciphered.data(), 16),
                                          dir.file("body.bin"), dir.file("padded.bin"))
                  .exitStatus,
              0);
    qv::Data padded = rulestest::readFile(dir.file("padded.bin"));
    std::string rules = kRules;
    ASSERT_GE(padded.size(), rules.size());
    EXPECT_EQ(std::string(padded.begin(), padded.begin() + static_cast<long>(rules.size())), rules);

    // ...and the tool reads a file whose body openssl made.
    ASSERT_EQ(rulestest::runOpenSSLCipher(true, key, "ffeeddccbbaa99887766554433221100",
                                          dir.file("padded.bin"), dir.file("body2.bin"))
                  .exitStatus,
              0);
    qv::Data file = {0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88,
                     0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0x00};
    qv::Data body = rulestest::readFile(dir.file("body2.bin"));
    file.insert(file.end(), body.begin(), body.end());
    rulestest::writeFile(dir.file("openssl.enc"), file);
    ASSERT_EQ(
        runQvdevice({"rules", "decrypt", dir.file("openssl.enc"), dir.file("openssl.plist")}).code,
        0);
    EXPECT_EQ(rulestest::readFile(dir.file("openssl.plist")), qv::Data(rules.begin(), rules.end()));

    // Another pass phrase.
    ASSERT_EQ(runQvdevice({"rules", "encrypt", dir.file("rules.plist"), dir.file("own.enc"),
                           "--pass", "s3cret"})
                  .code,
              0);
    EXPECT_EQ(runQvdevice({"rules", "decrypt", dir.file("own.enc"), dir.file("own.plist")}).code,
              1);
    EXPECT_EQ(runQvdevice({"rules", "decrypt", dir.file("own.enc"), dir.file("own.plist"), "--pass",
                           "s3cret"})
                  .code,
              0);
}

TEST_F(RulesCommandTests, FailedDecryptWritesNothingAndErrorsAreOneLine) {
    rulestest::writeFile(dir.file("rules.plist"), kRules);
    rulestest::writeFile(dir.file("keep.plist"), std::string("old contents"));
    ToolRun plain =
        runQvdevice({"rules", "decrypt", dir.file("rules.plist"), dir.file("keep.plist")});
    EXPECT_EQ(plain.code, 1);
    EXPECT_TRUE(contains(plain.err, "not a rules file enciphered with this pass phrase"));
    EXPECT_EQ(rulestest::readFile(dir.file("keep.plist")),
              qv::Data({'o', 'l', 'd', ' ', 'c', 'o', 'n', 't', 'e', 'n', 't', 's'}));

    // A missing input is the user's mistake (2); a write that fails is not (1).
    ToolRun missing = runQvdevice({"rules", "encrypt", dir.file("missing"), dir.file("x")});
    EXPECT_EQ(missing.code, 2);
    EXPECT_TRUE(contains(missing.err, dir.file("missing")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("x")));
    ToolRun noDirectory =
        runQvdevice({"rules", "encrypt", dir.file("rules.plist"), dir.file("none/x.enc")});
    EXPECT_EQ(noDirectory.code, 1);
    ToolRun checkMissing = runQvdevice({"rules", "check", dir.file("missing")});
    EXPECT_EQ(checkMissing.code, 2);
    EXPECT_EQ(checkMissing.err,
              "qvdevice rules check: " + dir.file("missing") + ": no such file or directory\n");
    // Nothing is left behind beside the outputs.
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        EXPECT_FALSE(contains(entry.path().filename().string(), ".tmp-")) << entry.path();
    }
}

TEST_F(RulesCommandTests, StandardInputAndOutput) {
    rulestest::writeFile(dir.file("rules.plist"), kRules);
    // Through the real binary: a shell only redirects; the paths are its arguments, not words.
    qv::TaskResult result = qv::PosixTaskLauncher().run(
        "/bin/sh", {"-c", "\"$0\" rules encrypt - - < \"$1\" > \"$2\"", QV_QVDEVICE_PATH,
                    dir.file("rules.plist"), dir.file("piped.enc")});
    ASSERT_EQ(result.exitStatus, 0) << result.error;
    result = qv::PosixTaskLauncher().run(QV_QVDEVICE_PATH,
                                         {"rules", "decrypt", dir.file("piped.enc"), "-"});
    ASSERT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, kRules);
    result = qv::PosixTaskLauncher().run("/bin/sh", {"-c", "\"$0\" rules check - < \"$1\"",
                                                     QV_QVDEVICE_PATH, dir.file("piped.enc")});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "standard input: 2 rules, no problems\n");
}

TEST_F(RulesCommandTests, CheckReportsProblemsAndDeviceVerdicts) {
    std::filesystem::create_directory(dir.file("rules"));
    rulestest::writeFile(dir.file("rules/com.example.Connect.plist"), kRules);
    rulestest::writeFile(
        dir.file("rules/com.example.Other.plist"),
        std::string("( { QuorvelID = 5059; Allowed = YES; Colour = red; },"
                    "  { VendorID = 0x19D2; ExcludedModelNamePattern = \"K38(\"; },"
                    "  { VendorID = 4505; AllowsDriverRequest = YES; } )"));
    rulestest::writeFile(dir.file("rules/ignored.PLIST"), kRules);

    ToolRun check = runQvdevice({"rules", "check", dir.file("rules")});
    EXPECT_EQ(check.code, 1);
    const std::string other = dir.file("rules/com.example.Other.plist");
    EXPECT_TRUE(contains(check.out,
                         dir.file("rules/com.example.Connect.plist") + ": 2 rules, no problems\n"));
    EXPECT_TRUE(contains(check.out, other + ": rule 1: \"Allowed\" is the string \"YES\", which "
                                            "reads as 0\n"));
    EXPECT_TRUE(contains(check.out, other + ": rule 1: unknown key \"Colour\"\n"));
    EXPECT_TRUE(contains(check.out, other + ": rule 2: \"VendorID\" is the string \"0x19D2\""));
    EXPECT_TRUE(contains(check.out, other + ": rule 2: \"ExcludedModelNamePattern\" \"K38(\" does "
                                            "not compile"));
    EXPECT_TRUE(contains(check.out, "(did you mean \"AllowesDriverRequest\"?)"));
    EXPECT_TRUE(contains(check.out, "ignored.PLIST: not read"));

    ToolRun verdicts = runQvdevice({"rules", "check", dir.file("rules/com.example.Connect.plist"),
                                    "--device", "5059:0x1199:0x6812:K3805-Z"});
    EXPECT_EQ(verdicts.code, 0);
    EXPECT_TRUE(contains(verdicts.out, "isAllowedDevice 2 (allowed)"));
    EXPECT_TRUE(contains(verdicts.out, "applications to launch: com.example.Connect\n"));
    ToolRun notNamed = runQvdevice({"rules", "check", dir.file("rules/com.example.Connect.plist"),
                                    "--device", "197:0x12D1:0x1001"});
    EXPECT_TRUE(contains(notNamed.out, "isAllowedDevice 0 (no rule names the device)"));
    EXPECT_TRUE(contains(notNamed.out, "applications to launch: (none)\n"));
    EXPECT_EQ(runQvdevice({"rules", "check", dir.file("rules"), "--device", "5059:x"}).code, 2);
}

TEST_F(RulesCommandTests, CheckShowsAnExclusionThatRanOutOfTime) {
    rulestest::writeFile(dir.file("slow.plist"),
                         std::string("( { VendorID = 6610; ExcludedModelNamePattern = "
                                     "\"(a|aa)+$\"; } )"));
    ToolRun verdicts = runQvdevice({"rules", "check", dir.file("slow.plist"), "--device",
                                    "0:6610:1:" + std::string(60, 'a') + "b"});
    EXPECT_TRUE(contains(verdicts.out, "isExcludedGenericDevice 1 (excluded)")) << verdicts.out;
    EXPECT_TRUE(contains(verdicts.out, dir.file("slow.plist") +
                                           ": isExcludedDevice: the pattern (a|aa)+$ could not "
                                           "be matched"))
        << verdicts.out;
}

// OUT is the output asked for, but only as a regular file: what else is there is left alone, and
// plain text never becomes readable to others on the way.
TEST_F(RulesCommandTests, OutputReplacesOnlyRegularFilesAndKeepsTheirMode) {
    rulestest::writeFile(dir.file("rules.plist"), kRules);
    ASSERT_EQ(
        runQvdevice({"rules", "encrypt", dir.file("rules.plist"), dir.file("rules.enc")}).code, 0);
    auto modeOf = [](const std::string& path) {
        return std::filesystem::status(path).permissions() & std::filesystem::perms::mask;
    };
    using std::filesystem::perms;

    // A new decrypted file is private; a replaced file keeps its mode, whichever way it goes.
    ASSERT_EQ(runQvdevice({"rules", "decrypt", dir.file("rules.enc"), dir.file("new.plist")}).code,
              0);
    EXPECT_EQ(modeOf(dir.file("new.plist")), perms::owner_read | perms::owner_write);
    rulestest::writeFile(dir.file("private.plist"), std::string("old"));
    std::filesystem::permissions(dir.file("private.plist"), perms::owner_read | perms::owner_write);
    ASSERT_EQ(
        runQvdevice({"rules", "decrypt", dir.file("rules.enc"), dir.file("private.plist")}).code,
        0);
    EXPECT_EQ(modeOf(dir.file("private.plist")), perms::owner_read | perms::owner_write);
    EXPECT_EQ(rulestest::readFile(dir.file("private.plist")),
              rulestest::readFile(dir.file("rules.plist")));
    std::filesystem::permissions(dir.file("rules.enc"), perms::owner_all | perms::group_read);
    ASSERT_EQ(
        runQvdevice({"rules", "encrypt", dir.file("rules.plist"), dir.file("rules.enc")}).code, 0);
    EXPECT_EQ(modeOf(dir.file("rules.enc")), perms::owner_all | perms::group_read);

    // A symbolic link, a FIFO and a directory are refused and left as they were.
    std::filesystem::create_symlink(dir.file("private.plist"), dir.file("link.plist"));
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(dir.file("directory"));
    for (const char* name : {"link.plist", "fifo", "directory"}) {
        for (const char* command : {"encrypt", "decrypt"}) {
            const std::string input =
                std::string(command) == "encrypt" ? dir.file("rules.plist") : dir.file("rules.enc");
            ToolRun run = runQvdevice({"rules", command, input, dir.file(name)});
            EXPECT_EQ(run.code, 2) << command << " " << name;
            EXPECT_TRUE(contains(run.err, "is not replaced")) << run.err;
        }
    }
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.plist")));
    EXPECT_TRUE(std::filesystem::is_fifo(dir.file("fifo")));
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("directory")));
    EXPECT_EQ(rulestest::readFile(dir.file("private.plist")),
              rulestest::readFile(dir.file("rules.plist")));
    // A device node too: /dev/null stays the device it is, even for root.
    ToolRun null = runQvdevice({"rules", "decrypt", dir.file("rules.enc"), "/dev/null"});
    EXPECT_EQ(null.code, 2);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        EXPECT_FALSE(contains(entry.path().filename().string(), ".tmp-")) << entry.path();
    }
}

TEST_F(RulesCommandTests, HostileFilesGiveALineNotACrash) {
    std::string rules = kRules;
    std::string deeplyNested(100000, '(');
    qv::Data enciphered =
        dataEncryptedWithPass(qv::Data(rules.begin(), rules.end()), "FrimbleJonks");
    const std::vector<qv::Data> hostile = {
        qv::Data(enciphered.begin(), enciphered.begin() + 40),  // truncated
        qv::Data(enciphered.begin(), enciphered.end() - 16),    // a block short
        qv::Data(31, 0),
        qv::Data(64, 0),
        qv::Data({'b', 'p', 'l', 'i', 's', 't', '0', '0'}),
        qv::Data(deeplyNested.begin(), deeplyNested.end())};
    for (std::size_t i = 0; i < hostile.size(); ++i) {
        std::string path = dir.file("hostile" + std::to_string(i) + ".plist");
        rulestest::writeFile(path, hostile[i]);
        ToolRun check = runQvdevice({"rules", "check", path, "--device", "1:2:3"});
        EXPECT_EQ(check.code, 1) << i;
        EXPECT_TRUE(contains(check.out, path + ": not a property list")) << i << check.out;
        EXPECT_EQ(runQvdevice({"rules", "decrypt", path, dir.file("out")}).code, 1) << i;
    }
}

}  // namespace
