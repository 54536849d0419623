#include "support/memory_scan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <system_error>

namespace support {

namespace {

constexpr size_t WINDOW = 8;  // what the filter looks at
constexpr size_t STRIDE = 4;  // any PIECE bytes hold a whole window that begins at a multiple of it
static_assert(Marks::PIECE >= WINDOW + STRIDE);
constexpr unsigned FILTER_BITS = 18;  // 32 KiB, which stay in a processor's first cache
constexpr size_t CHUNK = 1 << 20;     // of another process's memory
constexpr size_t BEFORE = 16;
constexpr size_t SHOWN = 32;
constexpr size_t AROUND = BEFORE + SHOWN + 16;
constexpr char MASK = '\x5a';

uint64_t load64(const char* bytes)
{
    uint64_t value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

uint32_t load32(const char* bytes)
{
    uint32_t value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

constexpr size_t LINE = 64;
bool isZero(const char* line)
{
    uint64_t bits = load64(line);
    for (size_t i = 8; bits == 0 && i < LINE; i += 8)
        bits |= load64(line + i);
    return bits == 0;
}

constexpr char STANDARD[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char URL[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// The characters of an encoded text that are made of `bytes` alone if `skipped` (0 to 2) others
// stand before them in the group of three. At the end, also the one that is made of the last
// bits and zeros. Returns how many.
size_t encodeInside(std::string_view bytes, unsigned skipped, const char* alphabet, char* out)
{
    const unsigned dropped = skipped == 0 ? 0 : 6 - 2 * skipped;  // bits of a mixed character
    size_t count = 0;
    for (size_t bit = dropped; bit < bytes.size() * 8; bit += 6) {
        const auto at = [&](size_t i) {
            return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
        };
        const unsigned pair = at(bit / 8) << 8 | at(bit / 8 + 1);
        out[count++] = alphabet[pair >> (10 - bit % 8) & 63];
    }
    return count;
}

// What a scan writes to, in a mapping of its own: the heap stays as it is until the scan is over.
struct Scratch {
    struct Hit {
        uint32_t source;
        uintptr_t address;
        size_t length;
        MemoryRange region;
        size_t name;  // its place in `maps`
        size_t before;
        size_t around;
        char masked[AROUND];
    };

    std::array<char, 1 << 20> maps;
    std::array<char, CHUNK + AROUND> chunk;
    std::array<Hit, 1000> hits;
    size_t count;

    static Scratch* make()
    {
        void* memory = mmap(nullptr, sizeof(Scratch), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "memory for a scan");
        return static_cast<Scratch*>(memory);
    }
    MemoryRange range() const
    {
        const auto begin = reinterpret_cast<uintptr_t>(this);
        return {begin, begin + sizeof *this};
    }
};

struct Mapping {
    MemoryRange range;
    bool writable;
    bool ownPages;
    size_t name;  // its place in the text; ends with the line
};

// Reads the whole of a /proc/.../maps into `text`, with a zero behind it.
bool readMaps(const char* path, char* text, size_t capacity)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    size_t size = 0;
    ssize_t got = 0;
    while (size < capacity - 1 && (got = read(file, text + size, capacity - 1 - size)) > 0)
        size += static_cast<size_t>(got);
    text[size] = '\0';
    close(file);
    return got == 0;
}

// The mapping that the line at `cursor` tells of; moves on to the next line, or to null.
Mapping nextMapping(const char* text, const char*& cursor)
{
    char* end = nullptr;
    Mapping mapping = {};
    mapping.range.begin = strtoull(cursor, &end, 16);
    mapping.range.end = strtoull(end + 1, &end, 16);
    mapping.writable = end[1] == 'r' && end[2] == 'w';
    mapping.ownPages = end[4] == 'p';
    const char* field = end + 5;  // offset, device, inode, and maybe a name
    for (int i = 0; i < 3; ++i)
        field += strspn(field, " "), field += strcspn(field, " \n");
    field += strspn(field, " ");
    mapping.name = static_cast<size_t>(field - text);
    cursor = strchr(field, '\n');
    cursor = cursor != nullptr && cursor[1] != '\0' ? cursor + 1 : nullptr;
    return mapping;
}

std::string nameAt(const char* name)
{
    const size_t size = strcspn(name, "\n");
    return size == 0 ? "anonymous" : std::string(name, size);
}

}  // namespace

Marks::Marks() : m_entries(1 << 10), m_filter((size_t{1} << FILTER_BITS) / 64)
{
    std::random_device random;
    for (uint64_t& word : m_key)
        word = (uint64_t{random()} << 32 | random()) | 1;
}

void Marks::add(const std::string& name, std::string_view bytes)
{
    ++m_secrets;
    addForm(name, "raw", bytes.data(), bytes.size());
    const size_t capacity = bytes.size() * 4 / 3 + 4;
    char* encoded = static_cast<char*>(malloc(capacity));
    for (unsigned skipped = 0; skipped < 3; ++skipped) {
        addForm(name, "Base64", encoded, encodeInside(bytes, skipped, STANDARD, encoded));
        addForm(name, "Base64 URL", encoded, encodeInside(bytes, skipped, URL, encoded));
    }
    wipeByHand(encoded, capacity);
    free(encoded);
}

void Marks::addText(const std::string& name, std::string_view text)
{
    ++m_secrets;
    addForm(name, "text", text.data(), text.size());
}

size_t Marks::pieces() const
{
    return m_pieces;
}

void Marks::addForm(const std::string& name, const char* form, const char* bytes, size_t size)
{
    m_sources.push_back({name, form, m_secrets});
    for (size_t i = 0; i + PIECE <= size; ++i)
        addPiece(bytes + i, static_cast<uint32_t>(m_sources.size() - 1));
}

void Marks::addPiece(const char* piece, uint32_t source)
{
    if (find(piece) != nullptr)
        return;
    if (m_pieces * 2 >= m_entries.size())
        grow();
    for (size_t i = 0; i + WINDOW <= PIECE; ++i) {
        const size_t bit = filterBit(piece + i);
        m_filter[bit / 64] |= uint64_t{1} << bit % 64;
    }
    const uint64_t wanted = hash(piece);
    size_t i = wanted & (m_entries.size() - 1);
    while (m_entries[i].hash != 0)
        i = (i + 1) & (m_entries.size() - 1);
    m_entries[i] = {wanted, source};
    ++m_pieces;
}

void Marks::grow()
{
    std::vector<Entry> larger(m_entries.size() * 4);
    for (const Entry& entry : m_entries) {
        size_t i = entry.hash & (larger.size() - 1);
        while (entry.hash != 0 && larger[i].hash != 0)
            i = (i + 1) & (larger.size() - 1);
        if (entry.hash != 0)
            larger[i] = entry;
    }
    m_entries.swap(larger);
}

uint64_t Marks::hash(const char* piece) const
{
    uint64_t value = (load64(piece) ^ m_key[0]) * m_key[1];
    value = (value ^ value >> 29 ^ load32(piece + WINDOW)) * m_key[2];
    value ^= value >> 32;
    return value != 0 ? value : 1;
}

inline size_t Marks::filterBit(const char* window) const
{
    return load64(window) * m_key[1] >> (64 - FILTER_BITS);
}

const Marks::Entry* Marks::find(const char* piece) const
{
    const uint64_t wanted = hash(piece);
    for (size_t i = wanted & (m_entries.size() - 1); m_entries[i].hash != 0;
         i = (i + 1) & (m_entries.size() - 1))
        if (m_entries[i].hash == wanted)
            return &m_entries[i];
    return nullptr;
}

// Bytes that lie at `here` in this process and at `there` in the one that is looked at.
struct Bytes {
    const char* here;
    size_t size;
    uintptr_t there;
};

class RangeScan {
public:
    RangeScan(const Marks& marks, Scratch& scratch) : m_marks(marks), m_scratch(scratch) {}

    void scan(const Bytes& bytes, const Mapping& mapping);
    std::vector<Trace> traces() const;

private:
    const char* record(const Bytes& bytes, const char* piece, uint32_t source,
                       const Mapping& mapping);

    const Marks& m_marks;
    Scratch& m_scratch;
};

void RangeScan::scan(const Bytes& bytes, const Mapping& mapping)
{
    const char* const begin = bytes.here;
    const char* const end = begin + bytes.size;
    const uint64_t* const filter = m_marks.m_filter.data();
    const char* seen = begin;  // what begins before is in a trace
    for (const char* at = begin + (0 - bytes.there) % STRIDE; at + WINDOW <= end; at += STRIDE) {
        // Much of a process's memory was never written to. No piece lies there.
        while (at + LINE <= end && isZero(at))
            at += LINE;
        if (at + WINDOW > end)
            break;
        const size_t bit = m_marks.filterBit(at);
        if ((filter[bit / 64] >> bit % 64 & 1) == 0)
            continue;
        const char* piece = at - std::min<ptrdiff_t>(at - seen, STRIDE - 1);
        for (; piece <= at && piece + Marks::PIECE <= end; ++piece)
            if (const Marks::Entry* entry = m_marks.find(piece)) {
                seen = record(bytes, piece, entry->source, mapping);
                at += (seen - at) / static_cast<ptrdiff_t>(STRIDE) * static_cast<ptrdiff_t>(STRIDE);
                break;
            }
    }
}

// Follows the trace to its end; returns where its last piece begins, or later.
const char* RangeScan::record(const Bytes& bytes, const char* piece, uint32_t source,
                              const Mapping& mapping)
{
    const char* const end = bytes.here + bytes.size;
    const uint32_t secret = m_marks.m_sources[source].secret;
    const char* last = piece;
    while (last + 1 + Marks::PIECE <= end) {
        const Marks::Entry* next = m_marks.find(last + 1);
        if (next == nullptr || m_marks.m_sources[next->source].secret != secret)
            break;
        source = std::max(source, next->source);  // what both alphabets have counts for one
        ++last;
    }
    if (m_scratch.count < m_scratch.hits.size()) {
        Scratch::Hit& hit = m_scratch.hits[m_scratch.count++];
        hit.source = source;
        hit.address = bytes.there + static_cast<uintptr_t>(piece - bytes.here);
        hit.length = static_cast<size_t>(last - piece) + Marks::PIECE;
        hit.region = mapping.range;
        hit.name = mapping.name;
        hit.before = std::min(BEFORE, static_cast<size_t>(piece - bytes.here));
        hit.around = std::min(AROUND, static_cast<size_t>(end - (piece - hit.before)));
        for (size_t i = 0; i < hit.around; ++i)
            hit.masked[i] = static_cast<char>(piece[i - hit.before] ^ MASK);
    }
    return last + 1;
}

// The bytes around a hit in hex, so that the next scan does not find them here.
static std::string aroundOf(const Scratch::Hit& hit)
{
    const size_t behind = std::min(hit.before + std::min(hit.length, SHOWN), hit.around);
    std::string text;
    for (size_t i = 0; i < hit.around; ++i) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(hit.masked[i] ^ MASK));
        text += i == hit.before ? " [" : " ";
        text += digits;
        text += i + 1 == behind ? "]" : "";
    }
    return text;
}

std::vector<Trace> RangeScan::traces() const
{
    const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    std::vector<Trace> traces;
    for (size_t i = 0; i < m_scratch.count; ++i) {
        const Scratch::Hit& hit = m_scratch.hits[i];
        const Marks::Source& source = m_marks.m_sources[hit.source];
        Trace trace = {source.mark,
                       source.form,
                       hit.address,
                       hit.length,
                       nameAt(m_scratch.maps.data() + hit.name),
                       ""};
        if (hit.region.begin <= frame && frame < hit.region.end)
            trace.region += hit.address < frame ? ", below its end" : ", in use";
        trace.around = aroundOf(hit);
        traces.push_back(trace);
    }
    return traces;
}

namespace {

// Scans a range of this process but for what `except` and `scratch` take of it.
void scanHere(RangeScan& scan, const Mapping& mapping, const std::vector<MemoryRange>& except,
              const MemoryRange& scratch)
{
    uintptr_t cursor = mapping.range.begin;
    while (cursor < mapping.range.end) {
        uintptr_t end = mapping.range.end;
        uintptr_t next = end;
        const auto leaveOut = [&](const MemoryRange& range) {
            if (range.end > cursor && range.begin < end) {
                end = std::max(range.begin, cursor);
                next = range.end;
            }
        };
        for (const MemoryRange& range : except)
            leaveOut(range);
        leaveOut(scratch);
        scan.scan({reinterpret_cast<const char*>(cursor), end - cursor, cursor}, mapping);
        cursor = next;
    }
}

// Reads what it can of a range of another process; pages that cannot be read are left out.
void scanThere(RangeScan& scan, Scratch& scratch, int memory, const Mapping& mapping)
{
    constexpr size_t PAGE = 4096;
    size_t kept = 0;  // bytes of the chunk before, for what lies across
    for (uintptr_t at = mapping.range.begin; at < mapping.range.end;) {
        const size_t wanted = std::min<uintptr_t>(CHUNK, mapping.range.end - at);
        const ssize_t got =
            pread(memory, scratch.chunk.data() + kept, wanted, static_cast<off_t>(at));
        if (got <= 0) {
            at += PAGE - at % PAGE;
            kept = 0;
            continue;
        }
        const size_t size = kept + static_cast<size_t>(got);
        scan.scan({scratch.chunk.data(), size, at - kept}, mapping);
        at += static_cast<size_t>(got);
        const size_t overlap = std::min(size, Marks::PIECE - 1);
        memmove(scratch.chunk.data(), scratch.chunk.data() + size - overlap, overlap);
        kept = overlap;
    }
}

// Devices and what the kernel gives to every process are not looked at.
bool ofTheKernel(const char* name)
{
    return strncmp(name, "[v", 2) == 0 || strncmp(name, "/dev/", 5) == 0;
}

}  // namespace

std::vector<Trace> tracesHere(const Marks& marks, const std::vector<MemoryRange>& except)
{
    Scratch* const scratch = Scratch::make();
    RangeScan scan(marks, *scratch);
    if (!readMaps("/proc/self/maps", scratch->maps.data(), scratch->maps.size()))
        throw std::system_error(errno, std::generic_category(), "/proc/self/maps");
    const char* const text = scratch->maps.data();
    for (const char* cursor = text; cursor != nullptr;) {
        const Mapping mapping = nextMapping(text, cursor);
        if (mapping.writable && mapping.ownPages && !ofTheKernel(text + mapping.name))
            scanHere(scan, mapping, except, scratch->range());
    }
    std::vector<Trace> traces = scan.traces();
    munmap(scratch, sizeof *scratch);
    return traces;
}

std::vector<Trace> tracesIn(pid_t process, const Marks& marks)
{
    const std::string folder = "/proc/" + std::to_string(process);
    const int memory = open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    if (memory < 0)
        throw std::system_error(errno, std::generic_category(), folder + "/mem");
    Scratch* const scratch = Scratch::make();
    RangeScan scan(marks, *scratch);
    readMaps((folder + "/maps").c_str(), scratch->maps.data(), scratch->maps.size());
    const char* const text = scratch->maps.data();
    for (const char* cursor = *text != '\0' ? text : nullptr; cursor != nullptr;) {
        const Mapping mapping = nextMapping(text, cursor);
        if (mapping.writable && !ofTheKernel(text + mapping.name))
            scanThere(scan, *scratch, memory, mapping);
    }
    std::vector<Trace> traces = scan.traces();
    munmap(scratch, sizeof *scratch);
    close(memory);
    return traces;
}

void wipeByHand(void* bytes, size_t size)
{
    memset(bytes, 0, size);
    asm volatile("" : : "r"(bytes) : "memory");
}

std::ostream& operator<<(std::ostream& out, const Trace& trace)
{
    char address[32];
    snprintf(address, sizeof address, "0x%zx", static_cast<size_t>(trace.address));
    return out << trace.mark << ", " << trace.form << ": " << trace.length << " bytes at "
               << address << " in " << trace.region << ":" << trace.around;
}

std::string textOf(const std::vector<Trace>& traces)
{
    constexpr size_t LINES = 20;
    std::ostringstream text;
    for (size_t i = 0; i < traces.size() && i < LINES; ++i)
        text << traces[i] << '\n';
    if (traces.size() > LINES)
        text << "and " << traces.size() - LINES << " more\n";
    return text.str();
}

}  // namespace support
