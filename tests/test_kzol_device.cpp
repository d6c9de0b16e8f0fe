// The whole job through the shipped tools on an emulated television: a signed
// script is allowed, an unsigned one refused and reported to the listener, and
// a disable certificate for this device lets the unsigned one run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "test_support.h"

using namespace kzol_test;

static std::string shq(const std::string& s)
{ return "'" + s + "'"; }

// `kzol ARGS`, on the emulated device of `profile` when one is given; standard error dropped.
static int kzol(const std::string& args, std::string* out = nullptr, const std::string& profile = "")
{
    const std::string tool = shq(KZOL_TOOL) + " ";
    return run((profile.empty() ? "" : tool + "emulate " + shq(profile) + " -- ") + tool + args + " 2>/dev/null", out);
}

TEST(KzolDevice, SignCheckReportAndDisableCertificate)
{
    // An ASan-built tool takes the preloaded emulation after its runtime.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    std::string work = "/tmp/kzol-device-XXXXXX", out, report;
    ASSERT_NE(mkdtemp(work.data()), nullptr);
    const TempDir profiles;
    const std::string tv = profiles.file("tv"), signedScript = work + "/signed.sh";
    const std::string unsignedScript = work + "/unsigned.sh";
    writeFile(signedScript, "#!/bin/sh\necho signed\n");
    writeFile(unsignedScript, "#!/bin/sh\necho unsigned\n");
    ASSERT_EQ(kzol("profile init " + shq(tv) + " --tv --duid TV-0042 --usb stick"), 0);
    ASSERT_EQ(kzol("sign --key " + shq(devPrivateKey('6')) + " --key-id 6 " + shq(signedScript)), 0);
    EXPECT_EQ(kzol("check " + shq(signedScript), &out, tv), 0);
    EXPECT_EQ(out, "allowed (BS_SIGNATURE_CORRECT)\n");

    // The refusal reaches a listener as one report.
    auto listener = std::async(std::launch::async, [&report] {
        return run("timeout -s KILL 20 " + shq(KZOL_TOOL) + " listen --once --json-lines 2>/dev/null", &report);
    });
    run("for i in $(seq 100); do grep -q SfDaemon/UserMsg /proc/net/unix && break; sleep 0.1; done");
    EXPECT_EQ(kzol("check --caller loader " + shq(unsignedScript), &out, tv), 1);
    EXPECT_EQ(out, "refused (BS_NOT_SIGNED)\n");
    EXPECT_EQ(listener.get(), 0);
    const std::vector<std::string> parts = {"\"Report/Caller\":\"loader\"", "result:\\\"BS_NOT_SIGNED\\\"",
                                            "\"Report/Path\":\"" + unsignedScript + "\""};
    for (const auto& part : parts) {
        EXPECT_NE(report.find(part), std::string::npos) << part << " in " << report;
    }

    // A certificate for another device changes nothing; one for this device
    // switches the check off.
    const std::string cert = "cert --force --key " + shq(devPrivateKey('5')) + " --key-id 5 -o " +
                             shq(tv + "/usb/stick/RTZOLOFF.cer") + " --duid ";
    ASSERT_EQ(kzol(cert + "TV-0043"), 0);
    EXPECT_EQ(kzol("check " + shq(unsignedScript), &out, tv), 1);
    ASSERT_EQ(kzol(cert + "TV-0042"), 0);
    EXPECT_EQ(kzol("check " + shq(unsignedScript), &out, tv), 0);
    EXPECT_EQ(out, "allowed (disable certificate)\n");
    run("rm -rf " + shq(work));
}
