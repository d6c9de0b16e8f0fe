// The signature block at the end of a file, read through the library's
// Signature class: one table of crafted files, each with the load's result,
// offset, metadata and the exact lines logged.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "signature.h"
#include "test_support.h"

using kzol_test::errorLine;
using kzol_test::LogRecorder;
using kzol_test::TempDir;

namespace {

std::string lengthField(std::uint32_t length)
{
    const unsigned char be[4] = {static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
                                 static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length)};
    char out[8];
    base64_encode(reinterpret_cast<const char*>(be), 4, out, 8);
    return std::string(out, 8);
}

const std::string c_text = "0x0123456789abcdef";  // a short MPI text; the loader does not look into it

struct Block {
    std::string content = "#!/bin/sh\necho hello\n";
    std::string meta = "P50";
    std::string text = c_text;
    std::string field;  // empty: the length field of `text`
    std::string blanks;

    std::string bytes() const
    {
        return content + meta + text + (field.empty() ? lengthField(static_cast<std::uint32_t>(text.size())) : field) +
               ":ZOL" + blanks;
    }
};

Block withBlanks(const std::string& blanks)
{
    Block b;
    b.blanks = blanks;
    return b;
}

Block withField(const std::string& field)
{
    Block b;
    b.field = field;
    return b;
}

Block withMeta(const std::string& meta)
{
    Block b;
    b.meta = meta;
    return b;
}

Block withContent(const std::string& content)
{
    Block b;
    b.content = content;
    return b;
}

const std::string c_freadError = errorLine("signature.cpp", "getFileSize", "Signature::getFileSize() fread error ");
const std::string c_nullArguments = errorLine("signature.cpp", "readFromFile", "Signature::readFromFile(): NULL arguments");

std::string typeError(char c)
{
    return errorLine("signature.cpp", "getSignatureInfo",
                     std::string("Signature::getSignatureInfo(): file to read file signature type[") + c + "]");
}

struct LoadCase {
    const char* name;
    std::string file;
    bool loaded;
    unsigned int offset;  // checked when loaded
    char sigType;
    char keyId;
    std::vector<std::string> log;
};

std::vector<LoadCase> loadCases()
{
    const Block plain;
    const unsigned int signedLength = static_cast<unsigned int>(plain.content.size() + 3);
    const std::string tail = lengthField(static_cast<std::uint32_t>(c_text.size())) + ":ZOL";
    // A field whose length is exactly E - 12: the text would start at 0.
    const std::string whole = plain.content + plain.meta + c_text;
    // Exactly 17 bytes: one content byte, metadata, a one-character text.
    Block zeroLength = withField(lengthField(0));
    zeroLength.text.clear();
    const std::string smallest = "xP50" + std::string("A") + lengthField(1) + ":ZOL";
    return {
        {"no trailing blanks", plain.bytes(), true, signedLength, 'P', '5', {}},
        {"one line feed", withBlanks("\n").bytes(), true, signedLength, 'P', '5', {}},
        {"carriage return and line feed", withBlanks("\r\n").bytes(), true, signedLength, 'P', '5', {}},
        {"two blanks", withBlanks(" \n").bytes(), true, signedLength, 'P', '5', {}},
        {"eight blanks", withBlanks("\r\n \r\n \n\n").bytes(), true, signedLength, 'P', '5', {}},
        {"nine blanks", withBlanks("\n\n\n\n\n\n\n\n\n").bytes(), false, 0, 0, 0, {}},
        {"blank followed by another byte", withBlanks("\nX").bytes(), false, 0, 0, 0, {}},
        // A blank inside the last eight bytes counts too: the block end moves
        // back by one and the footprint is no longer found.
        {"blank as the field's eighth character", withField(lengthField(18).substr(0, 7) + " ").bytes(), false,
         0, 0, 0, {}},
        {"other bytes after the block", withBlanks("XY").bytes(), false, 0, 0, 0, {}},
        {"length field of zero", zeroLength.bytes(), false, 0, 0, 0, {c_nullArguments}},
        // With L = 0 the metadata is read from the three bytes before the field.
        {"length field of zero after a text", withField(lengthField(0)).bytes(), false, 0, 0, 0,
         {c_nullArguments, typeError('d')}},
        {"length exactly E - 12", whole + lengthField(static_cast<std::uint32_t>(whole.size())) + ":ZOL",
         false, 0, 0, 0, {}},
        {"length beyond the file", withField(lengthField(0x7FFFFFFF)).bytes(), false, 0, 0, 0, {}},
        {"four signed bytes", withContent("x").bytes(), true, 4, 'P', '5', {}},
        {"three signed bytes", withContent("").bytes(), false, 0, 0, 0, {}},
        {"smallest block, 17 bytes", smallest, true, 4, 'P', '5', {}},
        {"16 bytes cannot hold a block", smallest.substr(1), false, 0, 0, 0, {}},
        {"eight alphabet characters", withField("AAAAAAAS").bytes(), false, 0, 0, 0, {}},
        {"bad character in the field", withField("AA*AAS==").bytes(), false, 0, 0, 0, {}},
        {"eighth character not examined", withField(lengthField(18).substr(0, 7) + "X").bytes(), true,
         signedLength, 'P', '5', {}},
        {"low bits of the sixth character dropped", withField("AAAAEh==").bytes(), true, signedLength, 'P', '5', {}},
        {"type L", withMeta("L60").bytes(), true, signedLength, 'L', '6', {}},
        {"type P, any selector", withMeta("P9\xff").bytes(), true, signedLength, 'P', '9', {}},
        {"type other", withMeta("X50").bytes(), false, 0, 0, 0, {typeError('X')}},
        {"type lower-case p", withMeta("p50").bytes(), false, 0, 0, 0, {typeError('p')}},
        {"no footprint", plain.content + plain.meta + c_text + lengthField(18) + ":ZOX", false, 0, 0, 0, {}},
        {"shorter than eight bytes", "abc", false, 0, 0, 0, {c_freadError}},
        {"empty file", "", false, 0, 0, 0, {c_freadError}},
        {"eight bytes, all blank", "\n\n\n\n\n\n\n\n", false, 0, 0, 0, {}},
        {"the tail alone", tail, false, 0, 0, 0, {}},
    };
}

}  // namespace

TEST(SignatureLoad, CraftedFiles)
{
    TempDir dir;
    for (const auto& c : loadCases()) {
        const std::string path = dir.file("f");
        kzol_test::writeFile(path, c.file);
        Signature signature;
        _ZolSigMeta meta{};
        LogRecorder::clear();
        const bool loaded = signature.loadFromFile(path, meta);
        EXPECT_EQ(loaded, c.loaded) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
        if (!loaded || !c.loaded) {
            continue;
        }
        EXPECT_EQ(signature.offset(), c.offset) << c.name;
        EXPECT_EQ(meta.sigType, c.sigType) << c.name;
        EXPECT_EQ(meta.keyId, c.keyId) << c.name;
        // The text as loaded: the L text bytes and one NUL.
        const std::size_t length = signature.size() - 1;
        ASSERT_GE(signature.size(), 2u) << c.name;
        EXPECT_EQ(signature.back(), '\0') << c.name;
        EXPECT_EQ(std::string(signature.begin(), signature.end() - 1), c.file.substr(c.offset, length)) << c.name;
    }
}

TEST(SignatureLoad, ComposeGivesBackTheBlockBytes)
{
    TempDir dir;
    for (const std::string& blanks : {std::string(), std::string("\r\n"), std::string("        ")}) {
        for (const std::string& text : {c_text, std::string("0x") + std::string(512, 'f')}) {
            Block b;
            b.text = text;
            b.blanks = blanks;
            const std::string file = b.bytes();
            kzol_test::writeFile(dir.file("f"), file);
            Signature signature;
            _ZolSigMeta meta{};
            ASSERT_TRUE(signature.loadFromFile(dir.file("f"), meta));
            ByteBuffer tail;
            signature.composeSignature(tail);
            const std::size_t blockEnd = file.size() - blanks.size();
            EXPECT_EQ(std::string(tail.begin(), tail.end()),
                      file.substr(signature.offset(), blockEnd - signature.offset()));
        }
    }
}

TEST(SignatureLoad, SecondLoadReplacesTheFirst)
{
    TempDir dir;
    Block longer;
    longer.text = "0x" + std::string(64, 'a');
    Block shorter = withContent("abc");
    shorter.meta = "L6x";
    kzol_test::writeFile(dir.file("long"), longer.bytes());
    kzol_test::writeFile(dir.file("short"), shorter.bytes());

    Signature signature;
    _ZolSigMeta meta{};
    ASSERT_TRUE(signature.loadFromFile(dir.file("long"), meta));
    ASSERT_TRUE(signature.loadFromFile(dir.file("short"), meta));
    EXPECT_EQ(signature.offset(), 6u);
    EXPECT_EQ(std::string(signature.begin(), signature.end()), c_text + std::string(1, '\0'));
    EXPECT_EQ(meta.sigType, 'L');
    EXPECT_EQ(meta.keyId, '6');

    // A zero-length field after a successful load still meets a null buffer.
    LogRecorder::clear();
    Block zero = withField(lengthField(0));
    zero.text.clear();
    kzol_test::writeFile(dir.file("zero"), zero.bytes());
    EXPECT_FALSE(signature.loadFromFile(dir.file("zero"), meta));
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{c_nullArguments});
}

TEST(SignatureLoad, UnopenableFiles)
{
    TempDir dir;
    const std::string missing = dir.file("missing");
    Signature signature;
    _ZolSigMeta meta{};
    LogRecorder::clear();
    EXPECT_FALSE(signature.loadFromFile(missing, meta));
    EXPECT_EQ(LogRecorder::lines(),
              std::vector<std::string>{errorLine("signature.cpp", "loadFromFile",
                                                 "Signature::loadFromFile(): failed to open [" + missing +
                                                     "] for reading")});
    // A directory opens but yields no bytes.
    LogRecorder::clear();
    EXPECT_FALSE(signature.loadFromFile(dir.path(), meta));
}

TEST(SignatureLoad, LargerThanThirtyTwoBitPositionsIsUnsigned)
{
    // A signed file followed by exactly 4 GiB of other bytes: with wrapped
    // positions its size would point at the original block end.
    TempDir dir;
    const std::string path = dir.file("big");
    kzol_test::writeFile(path, Block().bytes());
    const off_t size = static_cast<off_t>(Block().bytes().size()) + (static_cast<off_t>(1) << 32);
    ASSERT_EQ(truncate(path.c_str(), size), 0);  // sparse
    Signature signature;
    _ZolSigMeta meta{};
    LogRecorder::clear();
    EXPECT_FALSE(signature.loadFromFile(path, meta));
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{c_freadError});
}

TEST(SignatureSteps, NullArguments)
{
    Signature signature;
    LogRecorder::clear();
    EXPECT_EQ(signature.getFileSize(nullptr), 0u);
    char buffer[4];
    EXPECT_FALSE(signature.readFromFile(nullptr, 0, buffer, 4));
    EXPECT_EQ(LogRecorder::lines(),
              (std::vector<std::string>{
                  errorLine("signature.cpp", "getFileSize", "Signature::getFileSize(): pFile is NULL"),
                  c_nullArguments}));
}

TEST(SignatureObject, CopyAndCompose)
{
    ByteBuffer mpi;
    ASSERT_TRUE(toMPIString(ByteBuffer{0xDE, 0xAD}, mpi));
    const Signature original(mpi, 42);
    EXPECT_EQ(original.offset(), 42u);

    Signature copy(original);
    EXPECT_EQ(copy.offset(), 42u);
    EXPECT_EQ(static_cast<const ByteBuffer&>(copy), mpi);

    Signature assigned;
    assigned = original;
    assigned = assigned;  // self-assignment changes nothing
    EXPECT_EQ(assigned.offset(), 42u);
    EXPECT_EQ(static_cast<const ByteBuffer&>(assigned), mpi);

    ByteBuffer tail{1, 2, 3};
    original.composeSignature(tail);
    EXPECT_EQ(std::string(tail.begin(), tail.end()), "0xdead" + lengthField(6) + ":ZOL");

    // An empty text composes nothing: no length field claims a text that is not there.
    Signature empty;
    empty.composeSignature(tail);
    EXPECT_TRUE(tail.empty());
    EXPECT_EQ(empty.offset(), 0u);
}
