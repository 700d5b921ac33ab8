// Documents of programs that we did not write, and our documents read by them.
#include "tests/corefoundation/PlistSupport.hpp"
#include "tests/support/RunCommand.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

using namespace PlistTest;
using testing_support::CommandResult;
using testing_support::RunCommand;

namespace {

constexpr int kDocuments = 80;
constexpr CFPropertyListFormat kXML = kCFPropertyListXMLFormat_v1_0;
constexpr CFPropertyListFormat kBinary = kCFPropertyListBinaryFormat_v1_0;

// The stream that the oracle reads and writes: length and bytes of each record.
std::string Pack(const std::vector<std::string> &records) {
    std::string stream;
    for (const std::string &record : records) {
        Octets length;
        AppendBigEndian(length, record.size(), 4);
        stream.append(length.begin(), length.end()) += record;
    }
    return stream;
}

std::vector<std::string> Unpack(const std::string &stream) {
    std::vector<std::string> records;
    for (std::size_t at = 0; at + 4 <= stream.size();) {
        std::size_t length = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            length = length << 8 | static_cast<unsigned char>(stream[at + i]);
        }
        records.push_back(stream.substr(at + 4, length));
        at += 4 + length;
    }
    return records;
}

std::vector<std::string> Oracle(std::vector<std::string> arguments, const std::string &input = {}) {
    arguments.insert(arguments.begin(),
                     {"/usr/bin/python3", KELVANE_SOURCE_DIR "/tests/tools/plist_oracle.py"});
    const CommandResult result = RunCommand(arguments, input);
    EXPECT_EQ(result.status, 0) << result.errors;
    return Unpack(result.output);
}

std::vector<std::string> PythonDocuments(const char *format, int first = 0) {
    auto documents =
        Oracle({"generate", format, std::to_string(first), std::to_string(kDocuments)});
    EXPECT_EQ(documents.size(), static_cast<std::size_t>(kDocuments));
    return documents;
}

std::vector<std::string> PythonDumps(const std::vector<std::string> &documents) {
    auto dumps = Oracle({"dump"}, Pack(documents));
    EXPECT_EQ(dumps.size(), documents.size());
    return dumps;
}

std::string Rewritten(CFTypeRef root, CFPropertyListFormat format) {
    const Writing writing = Write(root, format);
    EXPECT_EQ(writing.fault, Fault());
    return {writing.document.begin(), writing.document.end()};
}

class Scratch {
  public:
    Scratch() {
        std::string pattern = (std::filesystem::temp_directory_path() / "plist-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() { std::filesystem::remove_all(path_); }

    // The document after the command-line converter has read and rewritten it.
    std::string Convert(const std::string &document, const char *to) const {
        const std::string in = path_ / "in";
        const std::string out = path_ / "out";
        std::ofstream(in, std::ios::binary) << document;
        std::filesystem::remove(out);
        const CommandResult result = RunCommand({"plistutil", "-i", in, "-o", out, "-f", to});
        EXPECT_EQ(result.status, 0) << result.errors;
        std::ifstream file(out, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::filesystem::path path_;
};

// Values that survive the converter: its dates and reals are cut in XML, and UIDs in
// XML are plain dictionaries to it.
Held ConvertibleGraph() {
    const Held members[] = {Text("plain <&> text"),
                            Text(u"gr\u00fcn \u4e2d\U0001F600"),
                            Integer(0),
                            Integer(-1),
                            Integer(INT64_MIN),
                            Integer(INT64_MAX),
                            Unsigned(UINT64_MAX),
                            Integer(70000),
                            Truth(true),
                            Truth(false),
                            Real(-2.5),
                            Data({}),
                            Data({0, 1, 2, 0xFF}),
                            Data(Octets(500, 0x5A)),
                            Date(0),
                            Date(700000000),
                            Date(-900000000),
                            Array({}),
                            Dictionary({})};
    std::vector<CFTypeRef> references;
    for (const Held &member : members) {
        references.push_back(member.get());
    }
    const Held array = Array(references);
    const Held key = Text(u"k\u00e9y");
    const Held other = Text("other");
    return Dictionary({{key.get(), array.get()}, {other.get(), members[0].get()}});
}

} // namespace

TEST(PlistOracle, PythonAndWeReadTheSameXML) {
    const auto documents = PythonDocuments("xml");
    const auto dumps = PythonDumps(documents);
    for (std::size_t i = 0; i < documents.size(); ++i) {
        EXPECT_EQ(DumpOf(documents[i]), dumps[i]) << "seed " << i;
    }
}

TEST(PlistOracle, PythonAndWeReadTheSameBinary) {
    const auto documents = PythonDocuments("binary");
    const auto dumps = PythonDumps(documents);
    for (std::size_t i = 0; i < documents.size(); ++i) {
        EXPECT_EQ(DumpOf(documents[i]), dumps[i]) << "seed " << i;
    }
}

TEST(PlistOracle, PythonReadsWhatWeWrite) {
    for (const char *source : {"xml", "binary"}) {
        std::vector<std::string> documents;
        std::vector<std::string> expected;
        for (const std::string &original : PythonDocuments(source, 1000)) {
            const Reading reading = Read(original);
            ASSERT_TRUE(reading.root) << reading.fault;
            for (const CFPropertyListFormat format : {kXML, kBinary}) {
                documents.push_back(Rewritten(reading.root.get(), format));
                expected.push_back(Dump(reading.root.get()));
            }
        }
        EXPECT_EQ(PythonDumps(documents), expected);
    }
}

TEST(PlistOracle, WeReadWhatWeWrite) {
    for (const std::string &original : PythonDocuments("binary", 2000)) {
        const Reading reading = Read(original);
        ASSERT_TRUE(reading.root) << reading.fault;
        for (const CFPropertyListFormat format : {kXML, kBinary}) {
            const std::string document = Rewritten(reading.root.get(), format);
            EXPECT_EQ(DumpOf(document), Dump(reading.root.get()));
            // Rewriting what was written changes nothing.
            EXPECT_EQ(Rewritten(Read(document).root.get(), format), document);
        }
    }
}

TEST(PlistOracle, OurXMLHasPythonsLayout) {
    const Held graph = ConvertibleGraph();
    const CommandResult result = RunCommand({"/usr/bin/python3", "-c",
                                             "import plistlib, sys\n"
                                             "value = plistlib.load(sys.stdin.buffer)\n"
                                             "sys.stdout.buffer.write(plistlib.dumps(value))"},
                                            Rewritten(graph.get(), kXML));
    EXPECT_EQ(result.output, WriteXML(graph.get()));
}

TEST(PlistOracle, ConverterReadsOurDocuments) {
    const Scratch scratch;
    const Held graph = ConvertibleGraph();
    for (const CFPropertyListFormat format : {kXML, kBinary}) {
        for (const char *to : {"xml", "bin"}) {
            const std::string converted = scratch.Convert(Rewritten(graph.get(), format), to);
            EXPECT_EQ(DumpOf(converted), Dump(graph.get())) << format << " to " << to;
        }
    }
}

TEST(PlistOracle, ConverterKeepsUidsOfBinaryDocuments) {
    const Scratch scratch;
    const Held uids[] = {Uid(0), Uid(255), Uid(256), Uid(65536), Uid(UINT32_MAX)};
    std::vector<CFTypeRef> references;
    for (const Held &uid : uids) {
        references.push_back(uid.get());
    }
    const Held array = Array(references);
    const std::string document = Rewritten(array.get(), kBinary);
    EXPECT_EQ(DumpOf(scratch.Convert(document, "bin")), Dump(array.get()));
    EXPECT_EQ(DumpOf(scratch.Convert(document, "xml")), Dump(array.get()));
}

TEST(PlistOracle, ConverterRewritesPythonsBinaryDocuments) {
    const Scratch scratch;
    const auto documents = PythonDocuments("binary", 3000);
    for (std::size_t i = 0; i < 40; ++i) {
        EXPECT_EQ(DumpOf(scratch.Convert(documents[i], "bin")), DumpOf(documents[i]))
            << "seed " << 3000 + i;
    }
}

TEST(PlistOracle, ConverterTakesControlCharactersAsWeWriteThem) {
    const Held string = Text(u"a\u0001b\u001f\u007f\r");
    EXPECT_EQ(DumpOf(Scratch().Convert(WriteXML(string.get()), "bin")), Dump(string.get()));
}
