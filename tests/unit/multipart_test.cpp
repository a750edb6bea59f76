// The streaming multipart parser on its own: bytes in, events out.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "maintenance/backup_format.h"
#include "request/multipart_parser.h"

namespace {

using namespace cgissi::request;

struct Part {
    PartKind kind;
    std::string name;
    std::string filename;
    std::string content;
    bool empty = false;
    bool ended = false;
};

class Recorder final : public MultipartEvents {
public:
    std::vector<Part> parts;
    std::vector<std::string> logs;

    int begin_part(PartKind kind, std::string_view name, std::string_view filename) override {
        parts.push_back({kind, std::string(name), std::string(filename), {}});
        return 0;
    }
    int content(PartKind kind, std::string_view bytes) override {
        EXPECT_FALSE(parts.empty());
        EXPECT_EQ(kind, parts.back().kind);
        EXPECT_FALSE(bytes.empty()) << "content comes in non-empty pieces";
        parts.back().content.append(bytes);
        return 0;
    }
    int end_part(PartKind, bool empty) override {
        parts.back().empty = empty;
        parts.back().ended = true;
        return 0;
    }
    void log(std::string_view message) override { logs.emplace_back(message); }
};

constexpr std::string_view kBoundary = "XyZ-boundary";

// The delimiter line's dashes and boundary, and the head of a part up to
// where its content starts.
std::string dashes() { return "--" + std::string(kBoundary); }
std::string head(std::string_view disposition) {
    return dashes() + "\r\nContent-Disposition: form-data" + std::string(disposition) + "\r\n\r\n";
}
std::string field(std::string_view name, std::string_view value) {
    return head("; name=\"" + std::string(name) + "\"") + std::string(value) + "\r\n";
}
std::string file_head(std::string_view name, std::string_view filename) {
    return head("; name=\"" + std::string(name) + "\"; filename=\"" + std::string(filename) +
                "\"\r\nContent-Type: application/octet-stream");
}
std::string file(std::string_view name, std::string_view filename, std::string_view content) {
    return file_head(name, filename) + std::string(content) + "\r\n";
}
std::string closing() { return dashes() + "--\r\n"; }

// Parses body fed in pieces of `chunk` bytes (0: all at once).
int parse(const std::string &body, Recorder &events, std::size_t chunk = 0) {
    MultipartParser parser(kBoundary, events);
    std::string_view rest(body);
    int result = kMultipartPending;
    while (!rest.empty() && result == kMultipartPending) {
        const std::size_t take = chunk == 0 ? rest.size() : std::min(chunk, rest.size());
        result = parser.feed(rest.substr(0, take));
        rest.remove_prefix(take);
    }
    return result == kMultipartPending ? parser.finish() : result;
}

// Content that looks like the delimiter in every way but the last byte, and
// carries line ends where the parser holds bytes back.
std::string tricky_content(std::size_t length) {
    const std::string pattern = std::string("\r\n--").append(kBoundary.substr(0, kBoundary.size() - 1)) + "\r\r\n-";
    std::string content;
    for (std::size_t i = 0; content.size() < length; ++i) content.push_back(pattern[i % pattern.size()]);
    return content;
}

// The delimiter that ends a file part lands at every offset around the
// 4096-byte border of the read area, and the body comes in pieces of
// several sizes: the parts must come out the same every time.
TEST(MultipartParser, DelimiterSplitAtEveryOffsetAroundTheBufferBorder) {
    const std::string prefix = field("iExpert", "1") + file_head("sFirmwareFile", "fw.bin");
    const std::size_t around = kMultipartBufferSize - prefix.size();
    for (std::size_t length = around - 48; length <= around + 48; ++length) {
        const std::string content = tricky_content(length);
        const std::string body = prefix + content + "\r\n" + field("after", "x") + closing();
        for (std::size_t chunk : {0UL, 1UL, 7UL, 4095UL, kMultipartBufferSize}) {
            Recorder events;
            ASSERT_EQ(parse(body, events, chunk), kMultipartSuccess) << length << "/" << chunk;
            ASSERT_EQ(events.parts.size(), 3u) << length << "/" << chunk;
            EXPECT_EQ(events.parts[0].content, "1");
            EXPECT_EQ(events.parts[1].kind, PartKind::file);
            EXPECT_EQ(events.parts[1].filename, "fw.bin");
            EXPECT_TRUE(events.parts[1].content == content) << "content changed at length " << length << "/" << chunk;
            EXPECT_TRUE(events.parts[1].ended);
            EXPECT_EQ(events.parts[2].content, "x") << length << "/" << chunk;
        }
    }
}

// A part whose content ends in a CR that fills the last byte of the buffer,
// with the delimiter straight after it: the CR is held back, then the
// delimiter stands one byte into the next buffer and the CR stays content.
TEST(MultipartParser, CarriageReturnHeldAtTheBufferEndStaysContent) {
    const std::string content = std::string(kMultipartBufferSize - 1, 'a') + "\r";
    const std::string body = file_head("f", "a.bin") + content + closing();
    for (std::size_t chunk : {0UL, 1UL, 4096UL}) {
        Recorder events;
        ASSERT_EQ(parse(body, events, chunk), kMultipartSuccess) << chunk;
        ASSERT_EQ(events.parts.size(), 1u);
        EXPECT_TRUE(events.parts[0].content == content) << "size " << events.parts[0].content.size() << "/" << chunk;
    }
}

TEST(MultipartParser, EmptyPartsAndNames) {
    struct Case {  // parts: name and content of each
        const char *desc; std::string body; int result; std::vector<std::pair<std::string, std::string>> parts;
    } cases[] = {
        {"empty field and empty file", field("a", "") + file("f", "e.txt", "") + closing(), kMultipartSuccess,
         {{"a", ""}, {"f", ""}}},
        {"name taken from inside filename when it comes first", head("; filename=\"n.bin\"") + "z\r\n" + closing(),
         kMultipartSuccess, {{"n.bin", "z"}}},
        {"no name at all", head("") + "z\r\n" + closing(), kMultipartInvalid, {}},
        {"closing delimiter without its line end", field("a", "1") + dashes() + "--", kMultipartInvalid, {{"a", "1"}}},
        {"body cut inside a part", field("a", "1").substr(0, 60), kMultipartIoError, {}},
        {"body cut before the closing delimiter", field("a", "1"), kMultipartIoError, {{"a", ""}}},
        {"preamble and epilogue are skipped", "preamble\r\n" + field("a", "1") + closing() + "epilogue",
         kMultipartSuccess, {{"a", "1"}}},
    };
    for (const Case &c : cases) {
        Recorder events;
        EXPECT_EQ(parse(c.body, events), c.result) << c.desc;
        ASSERT_GE(events.parts.size(), c.parts.size()) << c.desc;
        for (std::size_t i = 0; i < c.parts.size(); ++i) {
            EXPECT_EQ(events.parts[i].name, c.parts[i].first) << c.desc;
            EXPECT_EQ(events.parts[i].content, c.parts[i].second) << c.desc;
            // An ended part tells whether it was empty.
            EXPECT_TRUE(c.result != kMultipartSuccess || events.parts[i].empty == c.parts[i].second.empty()) << c.desc;
        }
    }
}

TEST(MultipartParser, Bounds) {
    const std::string long_name(kMultipartNameSize - 2, 'n');
    Recorder fits;
    ASSERT_EQ(parse(file("f", long_name, "x") + closing(), fits), kMultipartSuccess);
    EXPECT_EQ(fits.parts[0].filename, long_name) << "1022 characters fit";

    // 1023 characters: refused with the syntax error; the part falls back
    // to a field, which takes its content as a value.
    Recorder too_long;
    EXPECT_EQ(parse(file("f", long_name + "n", "x") + closing(), too_long), kMultipartSuccess);
    ASSERT_EQ(too_long.parts.size(), 1u);
    EXPECT_EQ(too_long.parts[0].kind, PartKind::field);
    EXPECT_EQ(too_long.logs, std::vector<std::string>{"Syntax Error : '\"' not found\n"});

    Recorder second_file;
    EXPECT_EQ(parse(file("a", "1.bin", "one") + file("b", "2.bin", "two") + closing(), second_file), kMultipartInvalid);
    EXPECT_EQ(second_file.parts.size(), 1u) << "the second file never begins";

    Recorder big_fields;
    const std::string half(kMaxFieldBytes / 2, 'v');
    EXPECT_EQ(parse(field("a", half) + field("b", half) + closing(), big_fields), kMultipartSuccess);
    Recorder too_big;
    EXPECT_EQ(parse(field("a", half) + field("b", half + "v") + closing(), too_big), kMultipartInvalid)
        << "field values are capped per body";

    Recorder huge_header;
    const std::string header =
        head("; name=\"a\"\r\nX-Pad: " + std::string(kMultipartBufferSize, 'p')) + "1\r\n" + closing();
    EXPECT_EQ(parse(header, huge_header), kMultipartInvalid) << "a header must fit the read area";

    Recorder big_file;
    const std::string image(5 * kMultipartBufferSize + 3, '\xff');
    EXPECT_EQ(parse(file("f", "big", image) + closing(), big_file, 1000), kMultipartSuccess);
    EXPECT_EQ(big_file.parts[0].content.size(), image.size()) << "a file is not bounded by the field cap";
}

using namespace cgissi::maintenance;

// The import decoder against the product's byte rules: header test on the
// first block, unscrambling, CR and CR LF become LF even across blocks.
TEST(BackupFormat, ImportDecodesAcrossBlocks) {
    const std::string archive = "line1\r\nline2\rline3\n\r";
    // As an export makes it: the template scrambled in place, then the archive.
    Scrambler scrambler(ScrambleDirection::scramble, kExportSeed);
    const auto header = start_scramble(scrambler);
    std::string upload(header.begin(), header.end());
    std::string scrambled = archive;
    scrambler.apply(reinterpret_cast<unsigned char *>(scrambled.data()), scrambled.size());
    upload += scrambled;
    EXPECT_NE(upload.substr(2, 3), "\xAA\xAA\xAA");
    for (std::size_t block : {std::size_t{1000}, std::size_t{7}, std::size_t{6}}) {
        ImportDecoder decoder;
        std::string out;
        std::string copy = upload;
        for (std::size_t at = 0; at < copy.size(); at += block)
            decoder.decode(reinterpret_cast<unsigned char *>(copy.data()) + at, std::min(block, copy.size() - at), out);
        EXPECT_TRUE(decoder.binary());
        EXPECT_EQ(out, "line1\nline2\nline3\n\n") << block;
    }
    ImportDecoder text;
    std::string plain = "a\r\nb";
    std::string out;
    text.decode(reinterpret_cast<unsigned char *>(plain.data()), plain.size(), out);
    EXPECT_FALSE(text.binary());
    EXPECT_EQ(out, "a\nb");
}

}  // namespace
