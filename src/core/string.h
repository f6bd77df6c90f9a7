#pragma once
// CString: an owning, NUL-terminated 8-bit string passed by value.
// A function that takes a CString owns its copy; results are new strings owned by the caller.
// Never created or changed inside the audio cycle.

#include <cstdint>

class CString {
public:
    CString();
    CString(const char* text);  // NOLINT: implicit on purpose, text literals are strings everywhere
    // At most length bytes of text, ending early at a NUL; a negative length takes the whole text.
    CString(const char* text, int32_t length);
    CString(const CString& other);
    CString(CString&& other) noexcept;
    CString& operator=(const CString& other);
    CString& operator=(CString&& other) noexcept;
    ~CString();

    // Copies source into this block, reallocating only when the source is longer than the current text.
    void assign(const CString& source);
    // Characters before the NUL; -1 for a moved-from string that has no block.
    int32_t length() const;
    bool isEmpty() const { return length() <= 0; }
    // Substring from start; a negative length, or one beyond the end, runs to the end of the text.
    CString mid(int32_t start, int32_t length = -1) const;
    // Byte-wise on unsigned bytes, case-sensitive: <0, 0, >0.
    int32_t compare(const CString& other) const;
    const char* c_str() const { return block_ ? block_ : ""; }

    friend bool operator==(const CString& a, const CString& b) { return a.compare(b) == 0; }
    friend bool operator<(const CString& a, const CString& b) { return a.compare(b) < 0; }

private:
    char* block_ = nullptr;
};

CString concat(CString left, CString right);
inline CString operator+(CString left, CString right) { return concat(static_cast<CString&&>(left), static_cast<CString&&>(right)); }

CString intToString(int32_t value);
// "%f" in the C locale whatever the process locale is.
CString floatToString(float value);
// Decimal value of text: an optional leading "-", then digits up to the first non-digit, so "12.5" gives 12.
// fallback when the text is empty, holds anything but digits, "-", "." and ",", or holds two or more
// separators ("." ",") or two or more minus signs. Values beyond 32 bits saturate.
int32_t stringToInt(CString text, int32_t fallback);
CString upperCase(CString text);
// Strips space, CR and LF from both ends; tabs stay.
CString trim(CString text);
CString keyOf(CString line);
CString valueOf(CString line);
// From the last "." on, dot included, even when that dot is in a folder name; "" when there is none.
CString fileExtension(CString path);
// fileName and filePath split behind the last "/" or "\\": paths stored by Windows builds use the latter.
// The first character is never taken for a separator, so "/x" is a name without a folder.
CString fileName(CString path);
CString filePath(CString path);
// Replaces the text from the last "." behind the first character by extension, or appends it.
CString withExtension(CString path, CString extension);
// Appends "/" unless the path is empty or already ends in "/" or "\\".
CString withTrailingSeparator(CString path);
