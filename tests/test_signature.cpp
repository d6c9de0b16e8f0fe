// The signature block at the end of a file, read through the library's
// Signature class. Length fields are written by the test helpers, not by the
// library's own encoder.

#include "signature.h"
#include "test_support.h"

using namespace kzol_test;

const std::string c_content = "#!/bin/sh\necho hello\n";
const std::string c_text = "0x0123456789abcdef";  // the loader does not look into the text
const std::string c_freadError = errorLine("signature.cpp", "getFileSize", "Signature::getFileSize() fread error ");
const std::string c_nullArguments =
    errorLine("signature.cpp", "readFromFile", "Signature::readFromFile(): NULL arguments");

// content | meta | text | length field (that of the text when empty) | ":ZOL" | blanks
static std::string block(const std::string& meta = "P50", const std::string& field = "", const std::string& blanks = "",
                         const std::string& content = c_content, const std::string& text = c_text)
{
    return content + meta + text + (field.empty() ? lengthField(text.size()) : field) + ":ZOL" + blanks;
}

// One object loads every file in turn, so each load has to replace all that
// the one before left: the first row has the longest text, and the zero-length
// field comes after successful loads (a buffer that once held a text). Files
// that plainly carry no block (none at all, no footprint, an empty text, nine
// blanks, type X, a length beyond the file) are rows of the corpus in
// test_kzol, which pins the loader's lines for them through BSContext.
TEST(SignatureLoad, CraftedFiles)
{
    const unsigned int n = static_cast<unsigned int>(c_content.size() + 3);  // offset of a plain block's text
    const std::string whole = c_content + "P50" + c_text;  // a length of exactly E - 12: the text would start at 0
    const std::string smallest = "xP50A" + lengthField(1) + ":ZOL";  // 17 bytes
    const auto typeError = [](char c) {
        return errorLine("signature.cpp", "getSignatureInfo",
                         std::string("Signature::getSignatureInfo(): file to read file signature type[") + c + "]");
    };
    struct Case {
        const char* name;
        std::string file;
        unsigned int offset;  // 0: not loaded
        std::string meta;     // type and selector
        Lines log;
        off_t grow = 0;  // bytes added after the file (sparse)
        off_t lead = 0;  // a hole before the file; `offset` counts it
    };
    // Where 32-bit positions end: a block whose end is the last position that
    // fits, and one whose file is a byte too long for them.
    const off_t lastFit = (off_t(1) << 32) - 1 - static_cast<off_t>(block().size());
    const std::vector<Case> cases = {
        {"long text, CRLF", block("P50", "", "\r\n", c_content, "0x" + std::string(512, 'f')), n, "P5", {}},
        {"no trailing blanks", block(), n, "P5", {}},
        {"eight blanks", block("P50", "", "\r\n \r\n \n\n"), n, "P5", {}},
        // A blank inside the last eight bytes counts too: the footprint moves.
        {"blank as the field's eighth character", block("P50", lengthField(18).substr(0, 7) + " "), 0, "", {}},
        {"eighth character not examined", block("P50", lengthField(18).substr(0, 7) + "X"), n, "P5", {}},
        {"eight alphabet characters", block("P50", "AAAAAAAS"), 0, "", {}},
        {"five bytes in the field", block("P50", "AAAAEhA="), 0, "", {}},
        {"bad character in the field", block("P50", "AA*AAS=="), 0, "", {}},
        // With L = 0 the metadata is read from the three bytes before the field.
        {"length field of zero after a text", block("P50", lengthField(0)), 0, "", {c_nullArguments, typeError('d')}},
        {"length exactly E - 12", whole + lengthField(whole.size()) + ":ZOL", 0, "", {}},
        {"four signed bytes", block("P50", "", "", "x"), 4, "P5", {}},
        {"three signed bytes", block("P50", "", "", ""), 0, "", {}},
        {"17 bytes", smallest, 4, "P5", {}},
        {"16 bytes", smallest.substr(1), 0, "", {}},
        {"type L", block("L60"), n, "L6", {}},
        {"type P, any selector", block("P9\xff"), n, "P9", {}},
        {"type lower-case p", block("p50"), 0, "", {typeError('p')}},
        // With wrapped positions its size would point at the block's end.
        {"4 GiB after a block", block(), 0, "", {c_freadError}, off_t(1) << 32},
        // Beyond a signed 32-bit position, and up to the end of an unsigned one.
        {"length field of 2^31", block("P50", lengthField(0x80000000U)), 0, "", {}},
        {"length field of 2^32 - 1", block("P50", lengthField(0xFFFFFFFFU)), 0, "", {}},
        {"block after a 2 GiB hole", block(), (1U << 31) + n, "P5", {}, 0, off_t(1) << 31},
        {"block ending at 4 GiB - 1", block(), static_cast<unsigned int>(lastFit) + n, "P5", {}, 0, lastFit},
        {"block ending at 4 GiB", block(), 0, "", {c_freadError}, 0, lastFit + 1},
    };
    const TempDir dir;
    const std::string path = dir.file("f");
    Signature signature;
    _ZolSigMeta meta{};
    for (const auto& c : cases) {
        writeFile(path, "");
        ASSERT_EQ(truncate(path.c_str(), c.lead), 0);
        appendFile(path, c.file);
        ASSERT_EQ(truncate(path.c_str(), c.lead + static_cast<off_t>(c.file.size()) + c.grow), 0);
        clearLog();
        EXPECT_EQ(signature.loadFromFile(path, meta), c.offset != 0) << c.name;
        EXPECT_EQ(loggedLines(), c.log) << c.name;
        if (c.offset != 0) {
            // The text as loaded: the bytes from the offset to the length field, and one NUL. Composed
            // again, it is followed by its length field and the footprint.
            const std::size_t at = c.offset - static_cast<std::size_t>(c.lead);
            const std::string text = c.file.substr(at, c.file.rfind(":ZOL") - 8 - at);
            ByteBuffer tail{1, 2, 3};
            signature.composeSignature(tail);
            Signature assigned;
            assigned = Signature(signature);  // a copy, assigned: the same text and offset
            EXPECT_EQ(assigned.offset(), c.offset) << c.name;
            EXPECT_EQ(assigned, signature) << c.name;
            EXPECT_EQ(signature.offset(), c.offset) << c.name;
            EXPECT_EQ(std::string({meta.sigType, meta.keyId}), c.meta) << c.name;
            EXPECT_EQ(std::string(signature.begin(), signature.end()), text + '\0') << c.name;
            EXPECT_EQ(std::string(tail.begin(), tail.end()), text + lengthField(text.size()) + ":ZOL") << c.name;
        }
    }
    // No file, and the steps without one. An empty text composes nothing: no
    // length field claims a text that is not there.
    clearLog();
    EXPECT_FALSE(signature.loadFromFile(dir.file("missing"), meta));
    EXPECT_EQ(signature.getFileSize(nullptr), 0u);
    EXPECT_FALSE(signature.readFromFile(nullptr, 0, &meta, 1));
    const std::string missing = "Signature::loadFromFile(): failed to open [" + dir.file("missing") + "] for reading";
    EXPECT_EQ(
        loggedLines(),
        (Lines{errorLine("signature.cpp", "loadFromFile", missing),
               errorLine("signature.cpp", "getFileSize", "Signature::getFileSize(): pFile is NULL"), c_nullArguments}));
    ByteBuffer tail{1, 2, 3};
    Signature().composeSignature(tail);
    EXPECT_TRUE(tail.empty());
}
