// An owned C text as a value, which may have no value at all: that differs from the empty text.
//
// Memory comes from the language's global operator new and a failure is that operator's. Not
// thread-safe: one object serves one thread at a time.
#pragma once

#include "KXMBasMemExport.h"

class KXMBASMEM_API mem_String {
public:
    /// A copy of `text`; null gives a string with no value.
    mem_String(char const* text = nullptr);
    mem_String(mem_String const& other);
    /// Releases the own text before it copies, without a look at who is assigned: a string that is
    /// assigned to itself loses its text and stays as valid as it was. Kept so.
    mem_String& operator=(mem_String const& other);
    ~mem_String();

    // The text, owned by the string; null when there is no value.
    operator char const*() const { return text; }
    operator char*() const { return text; }

    bool IsValid() const { return valid; } ///< a value was given
    int length() const;                    ///< in characters. pre: there is a text

private:
    char* text; // from new char[]
    bool valid;
};

// By contents where both have a text; otherwise strings with no value are equal to one another alone.
KXMBASMEM_API bool operator==(mem_String const& a, mem_String const& b);
KXMBASMEM_API bool operator==(mem_String const& a, char const* b);
KXMBASMEM_API bool operator==(char const* a, mem_String const& b);
KXMBASMEM_API bool operator!=(mem_String const& a, mem_String const& b);
KXMBASMEM_API bool operator!=(mem_String const& a, char const* b);
KXMBASMEM_API bool operator!=(char const* a, mem_String const& b);

/// `a` followed by `b`. With neither non-empty it has no value, though one were the empty text.
KXMBASMEM_API mem_String operator+(mem_String const& a, mem_String const& b);
KXMBASMEM_API mem_String operator+(mem_String const& a, char const* b);
KXMBASMEM_API mem_String operator+(char const* a, mem_String const& b);
