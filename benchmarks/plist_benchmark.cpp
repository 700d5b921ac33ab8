// Property lists of the size and shape of a file record: a keyed archive of 43 objects in
// about 500 bytes. The first two are what opening and writing a large backup do once a row.
//
// Run: plist_benchmark

#include <CoreFoundation/CFPropertyList.h>

#include <benchmark/benchmark.h>

#include <string_view>

namespace {

constexpr std::string_view kRecord = R"(<dict>
<key>$archiver</key><string>NSKeyedArchiver</string>
<key>$version</key><integer>100000</integer>
<key>$top</key><dict><key>root</key><dict><key>CF$UID</key><integer>1</integer></dict></dict>
<key>$objects</key><array>
  <string>$null</string>
  <dict>
    <key>LastModified</key><integer>1600000000</integer>
    <key>Flags</key><integer>0</integer>
    <key>GroupID</key><integer>501</integer>
    <key>$class</key><dict><key>CF$UID</key><integer>3</integer></dict>
    <key>LastStatusChange</key><integer>1600000001</integer>
    <key>RelativePath</key><dict><key>CF$UID</key><integer>2</integer></dict>
    <key>Birth</key><integer>1600000002</integer>
    <key>Size</key><integer>12345</integer>
    <key>InodeNumber</key><integer>123456789</integer>
    <key>Mode</key><integer>33188</integer>
    <key>UserID</key><integer>501</integer>
    <key>ProtectionClass</key><integer>3</integer>
  </dict>
  <string>Library/Preferences/com.example.some.application.plist</string>
  <dict>
    <key>$classname</key><string>MBFile</string>
    <key>$classes</key><array><string>MBFile</string><string>NSObject</string></array>
  </dict>
</array>
</dict>)";

CFDataRef RecordAsXML() {
    return CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>(kRecord.data()),
                        static_cast<CFIndex>(kRecord.size()));
}

CFTypeRef RecordGraph() {
    return CFPropertyListCreateWithData(nullptr, RecordAsXML(), kCFPropertyListImmutable, nullptr,
                                        nullptr);
}

void Read(benchmark::State &state, CFDataRef document) {
    for ([[maybe_unused]] auto iteration : state) {
        CFRelease(CFPropertyListCreateWithData(nullptr, document, kCFPropertyListImmutable, nullptr,
                                               nullptr));
    }
    state.SetBytesProcessed(state.iterations() * CFDataGetLength(document));
}

void Write(benchmark::State &state, CFPropertyListFormat format) {
    CFTypeRef graph = RecordGraph();
    for ([[maybe_unused]] auto iteration : state) {
        CFRelease(CFPropertyListCreateData(nullptr, graph, format, 0, nullptr));
    }
}

void ReadBinary(benchmark::State &state) {
    Read(state, CFPropertyListCreateData(nullptr, RecordGraph(), kCFPropertyListBinaryFormat_v1_0,
                                         0, nullptr));
}
void WriteBinary(benchmark::State &state) { Write(state, kCFPropertyListBinaryFormat_v1_0); }
void ReadXML(benchmark::State &state) { Read(state, RecordAsXML()); }
void WriteXML(benchmark::State &state) { Write(state, kCFPropertyListXMLFormat_v1_0); }

BENCHMARK(ReadBinary);
BENCHMARK(WriteBinary);
BENCHMARK(ReadXML);
BENCHMARK(WriteXML);

} // namespace

BENCHMARK_MAIN();
