// kzol inspect: the signature block of a file as the library's reader sees it.
//
// The verdict is the library's own: Signature::loadFromFile. The details and,
// for a file without a block, the reason come from walking the same steps with
// the reader's step methods. The walk reads what the reader reads but leaves
// out the calls that would log the reader's complaints a second time.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>

#include "commands.h"
#include "common.h"
#include "signature.h"
#include "writer.h"

namespace kzol {

namespace {

using block_layout::c_blankWindow;
using block_layout::c_footprintSize;
using block_layout::c_lengthFieldSize;
using block_layout::c_tailSize;

constexpr std::size_t c_rsa2048SignatureSize = 256;

struct InspectOptions {
    std::string file;
    bool json = false;
};

struct Findings {
    std::uint64_t fileSize = 0;
    std::optional<unsigned int> blockEnd;
    std::optional<bool> footprint;
    std::optional<std::string> lengthField;
    std::optional<unsigned int> textLength;
    std::optional<unsigned int> offset;
    std::optional<char> type;
    std::optional<char> keyId;
    std::optional<std::size_t> signatureLength;
    bool loaded = false;
    std::string reason;  // why there is no block
    std::vector<std::string> notes;
};

std::string quotedBytes(const std::string& bytes)
{
    return "\"" + printable(bytes) + "\"";
}

std::string quotedChar(char c)
{
    char hex[8];
    std::snprintf(hex, sizeof(hex), " (0x%02x)", static_cast<unsigned char>(c));
    return "'" + printable(c) + "'" + hex;
}

// The reader's steps, one by one. Answers whether they all pass; otherwise
// `f.reason` says where the walk stopped.
bool walkBlock(FILE* file, Findings& f)
{
    const Signature reader;
    if (f.fileSize > std::numeric_limits<std::uint32_t>::max()) {
        f.reason = "file larger than 4 GiB: block positions are 32-bit";
        return false;
    }
    if (f.fileSize < c_blankWindow) {
        // getFileSize cannot read the last eight bytes and strips nothing; a
        // block needs more than 16 bytes anyway.
        f.blockEnd = static_cast<unsigned int>(f.fileSize);
        f.reason =
            "file shorter than 8 bytes (" + std::to_string(f.fileSize) + " bytes): too short to hold a signature block";
        return false;
    }
    const unsigned int end = reader.getFileSize(file);
    f.blockEnd = end;

    f.footprint = reader.checkSignatureFootprint(file, end - c_footprintSize);
    if (!*f.footprint) {
        f.reason = end < c_footprintSize
                       ? "block end " + std::to_string(end) + " leaves no room for the \":ZOL\" footprint"
                       : "no \":ZOL\" footprint at E-4 (position " + std::to_string(end - c_footprintSize) + ")";
        return false;
    }
    if (end < c_tailSize) {
        f.reason = "no room for the 8-byte length field before the footprint (block end " + std::to_string(end) + ")";
        return false;
    }
    const unsigned int lengthPosition = end - c_tailSize;
    char field[c_lengthFieldSize];
    if (!reader.readFromFile(file, lengthPosition, field, sizeof(field))) {
        f.reason = "length field unreadable at position " + std::to_string(lengthPosition);
        return false;
    }
    f.lengthField = std::string(field, sizeof(field));
    unsigned int textLength = 0;
    if (!block_layout::decodeLengthField(field, textLength)) {
        f.reason = "length field " + quotedBytes(*f.lengthField) + " is not the base64 form of 4 bytes";
        return false;
    }
    f.textLength = textLength;
    if (lengthPosition <= textLength) {
        f.reason = "text length " + std::to_string(textLength) + " too large: only " + std::to_string(lengthPosition) +
                   " bytes precede the length field";
        return false;
    }
    const unsigned int offset = lengthPosition - textLength;
    f.offset = offset;
    if (textLength == 0) {
        f.reason = "text length 0: the block has no signature text";
        return false;
    }
    ByteBuffer text(textLength);
    if (!reader.readFromFile(file, offset, text.data(), textLength)) {
        f.reason = "signature text unreadable at position " + std::to_string(offset);
        return false;
    }
    if (offset <= c_metaFieldSize) {
        f.reason = "no room for content: the signed region of " + std::to_string(offset) +
                   " bytes is no longer than the 3-byte metadata field";
        return false;
    }
    unsigned char meta[c_metaFieldSize];
    if (!reader.readFromFile(file, offset - c_metaFieldSize, meta, sizeof(meta))) {
        f.reason = "metadata field unreadable";
        return false;
    }
    f.type = static_cast<char>(meta[0]);
    f.keyId = static_cast<char>(meta[1]);
    if (!isSignatureType(*f.type)) {
        f.reason = "bad type character " + quotedChar(*f.type) + ": the reader accepts only 'L' and 'P'";
        return false;
    }
    // The type is valid, so the reader's own metadata step runs silently.
    _ZolSigMeta record{};
    if (!reader.getSignatureInfo(file, offset, record)) {
        f.reason = "metadata field refused by the reader";
        return false;
    }
    return true;
}

// Details of a block the library loaded.
void describeLoaded(const Signature& block, const _ZolSigMeta& meta, Findings& f)
{
    f.offset = block.offset();
    f.textLength = static_cast<unsigned int>(block.size() - 1);
    f.type = meta.sigType;
    f.keyId = meta.keyId;
    ByteBuffer raw;
    if (fromMPIString(block, raw)) {
        f.signatureLength = raw.size();
        if (raw.size() != c_rsa2048SignatureSize) {
            f.notes.push_back("signature of " + std::to_string(raw.size()) + " bytes; an RSA-2048 signature has 256");
        }
    } else {
        f.notes.push_back("signature text is not a valid MPI string (\"0x\" and hexadecimal digit pairs): "
                          "verification will fail");
    }
    if (meta.sigType == 'L') {
        f.notes.push_back("type 'L' has no public keys: key selection fails");
    }
    if (!isKeySelector(meta.keyId)) {
        f.notes.push_back("key selector " + quotedChar(meta.keyId) + " names no built-in public key (5 or 6)");
    }
}

// Bytes as the text of a JSON string. Valid UTF-8 is kept as it is; in bytes
// that are not valid UTF-8 every byte stands for the character of the same
// number (U+0000 to U+00FF), so that raw bytes stay visible.
std::string jsonText(const std::string& bytes)
{
    if (isValidUtf8(bytes)) {
        return bytes;
    }
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xC0 | (byte >> 6));
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

// The value, or null when there is none.
template <typename T> Json::Value orNull(const std::optional<T>& value)
{
    return value ? Json::Value(*value) : Json::Value(Json::nullValue);
}

Json::Value numberOrNull(const std::optional<unsigned int>& value)
{
    return value ? Json::Value(static_cast<Json::UInt64>(*value)) : Json::Value(Json::nullValue);
}

Json::Value characterOrNull(const std::optional<char>& c)
{
    return c ? Json::Value(jsonText(std::string(1, *c))) : Json::Value(Json::nullValue);
}

void printJson(const std::string& path, const Findings& f)
{
    Json::Value o(Json::objectValue);
    o["file"] = jsonText(path);
    o["loaded"] = f.loaded;
    o["file_size"] = static_cast<Json::UInt64>(f.fileSize);
    o["trailing_blanks"] =
        f.blockEnd ? Json::Value(static_cast<Json::UInt64>(f.fileSize - *f.blockEnd)) : Json::Value(Json::nullValue);
    o["block_end"] = numberOrNull(f.blockEnd);
    o["footprint"] = orNull(f.footprint);
    o["length_field"] = f.lengthField ? Json::Value(jsonText(*f.lengthField)) : Json::Value(Json::nullValue);
    o["text_length"] = numberOrNull(f.textLength);
    o["offset"] = numberOrNull(f.offset);
    o["type"] = characterOrNull(f.type);
    o["key_id"] = characterOrNull(f.keyId);
    o["signature_length"] =
        f.signatureLength ? Json::Value(static_cast<Json::UInt64>(*f.signatureLength)) : Json::Value(Json::nullValue);
    o["reason"] = f.loaded ? Json::Value(Json::nullValue) : Json::Value(f.reason);
    Json::Value notes(Json::arrayValue);
    for (const auto& note : f.notes) {
        notes.append(note);
    }
    o["notes"] = notes;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    std::cout << Json::writeString(writer, o) << "\n";
}

void printText(const std::string& path, const Findings& f)
{
    std::ostringstream out;
    const auto line = [&out](const char* label, const std::string& value) {
        out << label << std::string(20 - std::string(label).size(), ' ') << value << "\n";
    };
    line("file:", printable(path));
    line("file size (N):", std::to_string(f.fileSize));
    if (f.blockEnd) {
        line("trailing blanks:", std::to_string(f.fileSize - *f.blockEnd));
        line("block end (E):", std::to_string(*f.blockEnd));
    }
    if (f.footprint) {
        line("footprint:", *f.footprint ? "\":ZOL\" at " + std::to_string(*f.blockEnd - c_footprintSize) : "missing");
    }
    if (f.lengthField) {
        line("length field:", quotedBytes(*f.lengthField));
    }
    if (f.textLength) {
        line("text length (L):", std::to_string(*f.textLength));
    }
    if (f.offset) {
        line("offset:", std::to_string(*f.offset) + " (signed region: content and 3-byte metadata field)");
    }
    if (f.type) {
        line("type:", quotedChar(*f.type));
    }
    if (f.keyId) {
        line("key selector:", quotedChar(*f.keyId));
    }
    if (f.signatureLength) {
        line("signature:", std::to_string(*f.signatureLength) + " bytes");
    }
    line("result:", f.loaded ? "signature block loaded" : "no signature block: " + f.reason);
    for (const auto& note : f.notes) {
        line("note:", note);
    }
    std::cout << out.str();
}

int runInspect(const InspectOptions& options)
{
    const std::string& path = options.file;
    struct stat st {};
    if (const int status = requireRegularFile(path, &st); status != c_exitSuccess) {
        return status;
    }

    Signature block;
    _ZolSigMeta meta{};
    const bool loaded = block.loadFromFile(path, meta);

    FilePtr file(bs_fopen(path.c_str(), "rb"));
    if (!file) {
        return fail("cannot open " + path + ": " + errnoText(errno));
    }
    Findings f;
    f.fileSize = static_cast<std::uint64_t>(st.st_size);
    const bool walked = walkBlock(file.get(), f);
    f.loaded = loaded;
    if (loaded) {
        describeLoaded(block, meta, f);
    } else if (walked) {
        f.reason = "the library's reader does not load the block";
    }

    if (options.json) {
        printJson(path, f);
    } else {
        printText(path, f);
    }
    return loaded ? c_exitSuccess : c_exitNegative;
}

}  // namespace

void addInspectCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<InspectOptions>();
    CLI::App* cmd = app.add_subcommand("inspect", "Show the signature block of a file as the library reads it");
    cmd->add_option("FILE", options->file, "File to inspect")->required();
    cmd->add_flag("--json", options->json, "Print one JSON object instead of text");
    cmd->footer("Shows the file size N, the trailing blanks N-E, the block end E, the length field, the text\n"
                "length L, the offset (length of the signed region), the type and key selector and the\n"
                "signature's length; for a file without a block, the reason.\n"
                "Exit status: 0 a block loads; 1 no block; 2 usage or I/O error.\n");
    cmd->callback([options, &status]() { status = runInspect(*options); });
}

}  // namespace kzol
