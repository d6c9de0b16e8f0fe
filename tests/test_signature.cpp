// The signature block at the end of a file, read through the library's
// Signature class. Length fields are written by the test helpers, not by the
// library's own encoder.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "signature.h"
#include "test_support.h"

using kzol_test::errorLine;
using kzol_test::lengthField;
using kzol_test::LogRecorder;

namespace {

const std::string c_content = "#!/bin/sh\necho hello\n";
const std::string c_text = "0x0123456789abcdef";  // the loader does not look into the text

// content | meta | text | length field (that of the text when empty) | ":ZOL" | blanks
std::string block(const std::string& meta = "P50", const std::string& field = "", const std::string& blanks = "",
                  const std::string& content = c_content, const std::string& text = c_text)
{
    return content + meta + text + (field.empty() ? lengthField(text.size()) : field) + ":ZOL" + blanks;
}

const std::string c_freadError = errorLine("signature.cpp", "getFileSize", "Signature::getFileSize() fread error ");
const std::string c_nullArguments =
    errorLine("signature.cpp", "readFromFile", "Signature::readFromFile(): NULL arguments");

std::string typeError(char c)
{
    return errorLine("signature.cpp", "getSignatureInfo",
                     std::string("Signature::getSignatureInfo(): file to read file signature type[") + c + "]");
}

// Writes `bytes` to a fresh file and loads it; the log is cleared first.
bool load(Signature& signature, _ZolSigMeta& meta, const std::string& bytes)
{
    static kzol_test::TempDir dir;
    kzol_test::writeFile(dir.file("f"), bytes);
    LogRecorder::clear();
    return signature.loadFromFile(dir.file("f"), meta);
}

}  // namespace

TEST(SignatureLoad, CraftedFiles)
{
    const unsigned int n = static_cast<unsigned int>(c_content.size() + 3);  // offset of a plain block's text
    const std::string whole = c_content + "P50" + c_text;  // a length of exactly E - 12: the text would start at 0
    const std::string smallest = "xP50A" + lengthField(1) + ":ZOL";  // 17 bytes
    struct Case {
        const char* name;
        std::string file;
        unsigned int offset;  // 0: not loaded
        std::string meta;     // type and selector
        std::vector<std::string> log;
    };
    const std::vector<Case> cases = {
        {"no trailing blanks", block(), n, "P5", {}},
        {"one blank", block("P50", "", "\n"), n, "P5", {}},
        {"two blanks", block("P50", "", "\r\n"), n, "P5", {}},
        {"eight blanks", block("P50", "", "\r\n \r\n \n\n"), n, "P5", {}},
        {"nine blanks", block("P50", "", std::string(9, '\n')), 0, "", {}},
        // A blank inside the last eight bytes counts too: the footprint moves.
        {"blank as the field's eighth character", block("P50", lengthField(18).substr(0, 7) + " "), 0, "", {}},
        {"eighth character not examined", block("P50", lengthField(18).substr(0, 7) + "X"), n, "P5", {}},
        {"eight alphabet characters", block("P50", "AAAAAAAS"), 0, "", {}},
        {"five bytes in the field", block("P50", "AAAAEhA="), 0, "", {}},
        {"bad character in the field", block("P50", "AA*AAS=="), 0, "", {}},
        {"length field of zero", block("P50", lengthField(0), "", c_content, ""), 0, "", {c_nullArguments}},
        // With L = 0 the metadata is read from the three bytes before the field.
        {"length field of zero after a text", block("P50", lengthField(0)), 0, "", {c_nullArguments, typeError('d')}},
        {"length exactly E - 12", whole + lengthField(whole.size()) + ":ZOL", 0, "", {}},
        {"length beyond the file", block("P50", lengthField(0x7FFFFFFF)), 0, "", {}},
        {"four signed bytes", block("P50", "", "", "x"), 4, "P5", {}},
        {"three signed bytes", block("P50", "", "", ""), 0, "", {}},
        {"17 bytes", smallest, 4, "P5", {}},
        {"16 bytes", smallest.substr(1), 0, "", {}},
        {"type L", block("L60"), n, "L6", {}},
        {"type P, any selector", block("P9\xff"), n, "P9", {}},
        {"type other", block("X50"), 0, "", {typeError('X')}},
        {"type lower-case p", block("p50"), 0, "", {typeError('p')}},
        {"no footprint", block().substr(0, block().size() - 1) + "X", 0, "", {}},
        {"shorter than eight bytes", "abc", 0, "", {c_freadError}},
        {"empty file", "", 0, "", {c_freadError}},
    };
    for (const auto& c : cases) {
        Signature signature;
        _ZolSigMeta meta{};
        EXPECT_EQ(load(signature, meta, c.file), c.offset != 0) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
        if (c.offset != 0) {
            EXPECT_EQ(signature.offset(), c.offset) << c.name;
            EXPECT_EQ(std::string({meta.sigType, meta.keyId}), c.meta) << c.name;
            // The text as loaded: the bytes from the offset to the length field, and one NUL.
            const std::string text = c.file.substr(c.offset, c.file.rfind(":ZOL") - 8 - c.offset);
            EXPECT_EQ(std::string(signature.begin(), signature.end()), text + '\0') << c.name;
        }
    }
}

TEST(SignatureLoad, ComposeGivesBackTheBlockBytes)
{
    for (const char* blanks : {"", "\r\n", "        "}) {
        for (const std::string& text : {c_text, "0x" + std::string(512, 'f')}) {
            const std::string file = block("P50", "", blanks, c_content, text);
            Signature signature;
            _ZolSigMeta meta{};
            ASSERT_TRUE(load(signature, meta, file));
            ByteBuffer tail{1, 2, 3};
            signature.composeSignature(tail);
            EXPECT_EQ(std::string(tail.begin(), tail.end()), text + lengthField(text.size()) + ":ZOL");
        }
    }
    // An empty text composes nothing: no length field claims a text that is not there.
    ByteBuffer tail{1, 2, 3};
    Signature().composeSignature(tail);
    EXPECT_TRUE(tail.empty());
}

TEST(SignatureLoad, SecondLoadReplacesTheFirst)
{
    Signature signature;
    _ZolSigMeta meta{};
    ASSERT_TRUE(load(signature, meta, block("P50", "", "", c_content, "0x" + std::string(64, 'a'))));
    ASSERT_TRUE(load(signature, meta, block("L6x", "", "", "abc")));
    EXPECT_EQ(signature.offset(), 6u);
    EXPECT_EQ(std::string(signature.begin(), signature.end()), c_text + '\0');
    EXPECT_EQ(std::string({meta.sigType, meta.keyId}), "L6");
    // A zero-length field after a successful load still meets a null buffer.
    EXPECT_FALSE(load(signature, meta, block("P50", lengthField(0), "", c_content, "")));
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{c_nullArguments});
}

TEST(SignatureLoad, UnopenableAndHugeFiles)
{
    kzol_test::TempDir dir;
    Signature signature;
    _ZolSigMeta meta{};
    LogRecorder::clear();
    EXPECT_FALSE(signature.loadFromFile(dir.file("missing"), meta));
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{errorLine(
                                        "signature.cpp", "loadFromFile",
                                        "Signature::loadFromFile(): failed to open [" + dir.file("missing") +
                                            "] for reading")});
    // A signed file followed by exactly 4 GiB of other bytes (sparse): with
    // wrapped positions its size would point at the original block end.
    kzol_test::writeFile(dir.file("big"), block());
    ASSERT_EQ(truncate(dir.file("big").c_str(), static_cast<off_t>(block().size()) + (static_cast<off_t>(1) << 32)), 0);
    LogRecorder::clear();
    EXPECT_FALSE(signature.loadFromFile(dir.file("big"), meta));
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{c_freadError});
}

TEST(SignatureObject, CopiesAndNullSteps)
{
    ByteBuffer mpi;
    ASSERT_TRUE(toMPIString(ByteBuffer{0xDE, 0xAD}, mpi));
    const Signature original(mpi, 42);
    Signature assigned;
    assigned = original;
    assigned = assigned;  // self-assignment changes nothing
    for (const Signature& s : {Signature(original), assigned}) {
        EXPECT_EQ(s.offset(), 42u);
        EXPECT_EQ(static_cast<const ByteBuffer&>(s), mpi);
    }
    ByteBuffer tail;
    original.composeSignature(tail);
    EXPECT_EQ(std::string(tail.begin(), tail.end()), "0xdead" + lengthField(6) + ":ZOL");

    LogRecorder::clear();
    EXPECT_EQ(original.getFileSize(nullptr), 0u);
    char buffer[4];
    EXPECT_FALSE(original.readFromFile(nullptr, 0, buffer, 4));
    EXPECT_EQ(LogRecorder::lines(),
              (std::vector<std::string>{
                  errorLine("signature.cpp", "getFileSize", "Signature::getFileSize(): pFile is NULL"),
                  c_nullArguments}));
}
