#pragma once
// CStringList: a list of texts, in insertion order or sorted without regard to ASCII case.
// Used for text files of lines (settings, file lists); it owns its items.

#include "core/list.h"
#include "core/object.h"
#include "core/string.h"

class CStringItem : public CObject {
public:
    explicit CStringItem(CString text) : text(static_cast<CString&&>(text)) {}

    CString text;
};

class CStringList : public CObject {
public:
    CStringList() = default;
    ~CStringList() override;

    // Appends, or when sorted, goes before the first item whose upper-case text is greater, so equal
    // texts keep the order they came in. Returns the new item, which the list owns.
    CStringItem* add(CString text);
    // Deletes every item.
    void clear();
    // Replaces the items by the lines of a text file, LF or CR LF. A line longer than 255 characters
    // arrives as several lines. Each is trimmed and added with add(). A file that can't be read leaves
    // the list as it was and gives false.
    bool loadFromFile(CString path);
    // Writes each text followed by CR LF, replacing the file atomically. A file that can't be written
    // is left alone and gives false.
    bool saveToFile(CString path) const;

    TList<CStringItem> items;
    bool sorted = false;
};
