// Detached signatures: made, verified, and refused for every reason there is.
#include <sys/stat.h>

#include "QvftoolFixture.h"
#include "Signature.h"

namespace qvtest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class SignatureTest : public QvftoolFixture {
  protected:
    SignatureTest() {
        std::filesystem::create_directory("packages");
        std::filesystem::create_directory("keys");
        for (const char* name : {"ours", "theirs"}) NewKey(name);
        Package().Section("Factory.Main", 0x200000, 70000).Write("packages/a.qvf");
    }
    static void NewKey(const std::string& name) {
        EXPECT_EQ(0, std::system(("ssh-keygen -q -t ed25519 -N '' -f keys/" + name).c_str()));
    }
    static void SignBy(const std::string& key) {
        const QvftoolRun run = Run({"sign", "packages/a.qvf", "--key", "keys/" + key});
        EXPECT_EQ(0, run.status) << run.errors;
        EXPECT_EQ("", run.output);
    }
    static std::string Found(const std::string& keys = "keys/ours.pub") {
        const QvftoolRun run = Run({"check", "packages", "--key", keys});
        EXPECT_EQ("", run.errors);
        EXPECT_EQ(run.output.empty() ? 0 : 1, run.status);
        return run.output;
    }
};

constexpr char kBad[] =
    "a.qvf: error: a-qvf.sig was not made over these bytes by a key of keys/ours.pub "
    "[bad-signature]\n";

TEST_F(SignatureTest, ASignedPackageIsCleanAndItsSignatureIsNoPackage) {
    SignBy("ours");
    EXPECT_EQ("", Found());
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("packages"))
        names.push_back(entry.path().filename().string());
    EXPECT_THAT(names, UnorderedElementsAre("a.qvf", "a-qvf.sig"));
    EXPECT_EQ("packages/a-qvf.sig", qvf::SignaturePath("packages/a.qvf"));
    EXPECT_EQ("a-qvf.bak.sig", qvf::SignaturePath("a.qvf.bak"));
    EXPECT_EQ("x.qvf.d/a-qvf-qvf.sig", qvf::SignaturePath("x.qvf.d/a.qvf.qvf"));
}

TEST_F(SignatureTest, AnUnsignedPackageIsFound) {
    EXPECT_EQ("a.qvf: error: there is no signature a-qvf.sig [unsigned]\n", Found());
    EXPECT_EQ(0, Run({"check", "packages"}).status);
}

TEST_F(SignatureTest, AnyOfSeveralKeysWill) {
    SignBy("theirs");
    EXPECT_EQ(kBad, Found());
    Put("keys/all", "# both\n\n" + Text("keys/ours.pub") + Text("keys/theirs.pub"));
    EXPECT_EQ("", Found("keys/all"));
}

TEST_F(SignatureTest, NoByteMayChange) {
    SignBy("ours");
    const Bytes good = Content("packages/a.qvf");
    for (const size_t at : {size_t{20}, size_t{15}, size_t{200}, good.size() - 1}) {
        Bytes changed = good;
        changed[at] = static_cast<uint8_t>(changed[at] ^ 1);
        PackageBuilder::WriteBytes("packages/a.qvf", changed);
        EXPECT_EQ(kBad, Found()) << at;
    }
    Bytes longer = good;
    longer.push_back(0);
    PackageBuilder::WriteBytes("packages/a.qvf", longer);
    EXPECT_THAT(Found(), HasSubstr(kBad));
    PackageBuilder::WriteBytes("packages/a.qvf", good);
    EXPECT_EQ("", Found());
}

TEST_F(SignatureTest, WhatIsNoSignatureIsBad) {
    for (const char* text :
         {"", "x", "-----BEGIN SSH SIGNATURE-----\n-----END SSH SIGNATURE-----\n"}) {
        Put("packages/a-qvf.sig", text);
        EXPECT_EQ(kBad, Found()) << text;
    }
}

// The same key may sign other things for other purposes.
TEST_F(SignatureTest, ASignatureForAnotherPurposeIsBad) {
    EXPECT_EQ(0, std::system("ssh-keygen -Y sign -f keys/ours -n file <packages/a.qvf "
                             ">packages/a-qvf.sig 2>/dev/null"));
    EXPECT_EQ(kBad, Found());
}

// What is made here can be verified without this program.
TEST_F(SignatureTest, TheSignatureIsAnOrdinaryOne) {
    SignBy("ours");
    Put("signers", "me namespaces=\"qvf\" " + Text("keys/ours.pub"));
    EXPECT_EQ(0, std::system("ssh-keygen -Y verify -f signers -I me -n qvf -s packages/a-qvf.sig "
                             "<packages/a.qvf >/dev/null"));
}

TEST_F(SignatureTest, KeysThatAreNoneAreErrors) {
    SignBy("ours");
    Put("keys/empty", "\n# nothing\n");
    const struct {
        const char* key;
        const char* message;
    } kRows[] = {
        {"keys/none", "qvftool: keys/none: cannot be opened: No such file"},
        {"keys/ours",
         "qvftool: keys/ours: this is a private key; give the public one, keys/ours.pub"},
        {"keys/empty", "qvftool: keys/empty: there is no public key in it"},
    };
    for (const auto& row : kRows) {
        const QvftoolRun run = Run({"check", "packages", "--key", row.key});
        EXPECT_EQ(2, run.status) << row.key;
        EXPECT_THAT(run.errors, StartsWith(row.message));
    }
}

TEST_F(SignatureTest, NothingIsSignedWithoutAPrivateKeyOrAPackage) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"packages/a.qvf", "--key", "keys/none"},
                                               {"packages/a.qvf", "--key", "keys/ours.pub"},
                                               {"keys/ours.pub", "--key", "keys/ours"}}) {
        std::vector<std::string> all = {"sign"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const QvftoolRun run = Run(all);
        EXPECT_EQ(2, run.status);
        EXPECT_THAT(run.errors, StartsWith("qvftool: keys/"));
    }
    EXPECT_FALSE(std::filesystem::exists("packages/a-qvf.sig"));
}

TEST_F(SignatureTest, AMissingProgramIsNamedWithItsPackage) {
    const std::string path = std::getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    const QvftoolRun run = Run({"sign", "packages/a.qvf", "--key", "keys/ours"});
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(2, run.status);
    EXPECT_EQ("qvftool: ssh-keygen is not installed: install the package openssh-client\n",
              run.errors);
}

}  // namespace
}  // namespace qvtest
