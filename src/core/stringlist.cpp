#include "core/stringlist.h"

#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "core/stream.h"

namespace {

// Pieces of a line are read through a buffer of this size, terminator included.
constexpr int pieceBytes = 256;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

CStringList::~CStringList() { clear(); }

CStringItem* CStringList::add(CString text) {
    auto* item = new CStringItem(std::move(text));
    if (!sorted) {
        items.add(item);
        return item;
    }
    const CString key = upperCase(item->text);
    int32_t index = 0;
    for (CStringItem* other : items) {
        if (upperCase(other->text).compare(key) > 0) break;
        ++index;
    }
    items.insert(index, item);
    return item;
}

void CStringList::clear() { items.deleteAll(); }

bool CStringList::loadFromFile(CString path) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "r"));
    if (!file) return false;

    // Read everything first, so that a read error half-way leaves the list untouched.
    std::vector<CString> lines;
    char piece[pieceBytes];
    while (std::fgets(piece, pieceBytes, file.get())) lines.push_back(trim(piece));
    if (std::ferror(file.get())) return false;

    clear();
    for (CString& line : lines) add(std::move(line));
    return true;
}

bool CStringList::saveToFile(CString path) const {
    CAtomicFileStream file(std::move(path));
    if (!file.isOpen()) return false;
    for (const CStringItem* item : items) {
        file.write(item->text.c_str(), item->text.length());
        file.write("\r\n", 2);
    }
    return file.commit();
}
