// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_DATA_H
#define LUMORA_COMMON_CONTEXT_DATA_H

#include <json/json.h>

#include <string>

#include "LumoraApi.h"

/// A JSON document, the common currency between modules and the form in which results reach the host.
///
/// A document either *owns* its value or is a *view* of a `Json::Value` that somebody else owns, and stays so for
/// life. Every method works on that value, its *target*.
///
/// A key is one plain member name: no path, no index syntax; a dot is a character like any other. Nested members are
/// reached by taking a sub-document. **Every method that takes a key inserts a null member when there is none, the
/// getters included**, and turns a null target into an object first; such members appear in MakeStr(). IsValid() alone
/// takes the member away again. Reading a document therefore changes it.
///
/// Kinds and conversions are jsoncpp's own, and differ between its series in places: whether a whole number counts as
/// a double, and what misuse (a key used on an array or a scalar, an index on an object, a conversion that cannot be
/// made, text nested too deeply) does: an assertion or an exception that passes through.
///
/// **Ownership.** A viewed value stays its owner's and must outlive the view. A copy of an owning document owns a deep
/// copy; a copy of a view is another view of the same value. A view that GetValuePtr() hands out ends with the element
/// that it points to: when that is removed, reassigned or cleared, or its document is destroyed.
/// **Threads.** One at a time; a view counts as a use of the document that it looks into. No locking.
/// **Errors.** MakeData() returns false and logs; nothing else fails on its own account.
/// @ingroup document
class LUMORA_API ContextData {
public:
    /// Owns a JSON null.
    ContextData() = default;

    /// Owns a copy of `value`.
    ContextData(Json::Value value);

    /// Views `*value`, which stays the caller's. A null pointer gives a document that owns a JSON null.
    ContextData(Json::Value* value);

    /// @name Writing by key
    /// Each returns true, always, and logs nothing.
    /// @{

    /// Writes a string.
    bool SetValue(const char* key, std::string value);
    /// Writes a string; a null pointer writes the empty one.
    bool SetValue(const char* key, const char* value);
    /// Writes a signed number. There is no overload for `bool`: it is written as the number 0 or 1.
    bool SetValue(const char* key, int value);
    /// Writes an unsigned number.
    bool SetValue(const char* key, unsigned int value);
    /// Writes an unsigned number of 64 bits.
    bool SetValue(const char* key, unsigned long long value);
    /// Writes the value, sign-extended to 64 bits, as an *unsigned* number: -1 becomes 18446744073709551615.
    bool SetValue(const char* key, long value);
    /// Writes a real number.
    bool SetValue(const char* key, double value);
    /// *Appends* a copy of the target of `other` as a new last element; a null member becomes an array first. Called
    /// repeatedly with one key it builds an array. To assign, use SetValueNoArry().
    bool SetValue(const char* key, ContextData& other);
    /// Replaces the member by a copy of the target of `other`.
    bool SetValueNoArry(const char* key, ContextData& other);
    /// Appends a string as a new last element; a null member becomes an array first.
    bool SetValueInArray(const char* key, std::string value);
    /// As above; a null pointer appends the empty string.
    bool SetValueInArray(const char* key, const char* value);
    /// Removes the member when there is one.
    bool RemoveMember(const char* key);
    /// @}

    /// Removes all members of an object or all elements of an array; the kind stays.
    /// @return true, always.
    bool Clear();

    /// Parses JSON text, comments included, into the target. After a failure the content is undefined.
    /// @param text  zero-terminated JSON text. Null logs the error "input is null" and changes nothing.
    /// @return whether the text could be parsed. A failure is logged as "m_reader paring error: [%p]=> %s" by an
    ///         owning document only; a view fails silently.
    bool MakeData(const char* text);

    /// Writes the target as compact JSON text of one line that ends in a line feed.
    /// @return the text, which belongs to this document and is valid until its next MakeStr(), an assignment to it or
    ///         its destruction.
    const char* MakeStr();

    /// Gives the target itself.
    /// @return never null.
    Json::Value* GetValue();

    /// Tests a member, and takes it away when it is null or absent.
    /// @return true when the member is there and not JSON null.
    bool IsValid(const char* key);

    /// Counts what a member holds.
    /// @return the number of elements of an array or of members of an object, else 0.
    int GetSize(const char* key);

    /// Takes a sub-document; an element of it, when this document is a view.
    /// @return an owning copy: of the member itself when this document owns its value, but of the member's *element 0*
    ///         when it is a view (a null member then becomes an array of one null).
    ContextData GetValue(const char* key);

    /// Takes one element of an array as a sub-document.
    /// @param key    the member, an array or null.
    /// @param index  0 or more; a shorter array grows with nulls up to it.
    /// @return an owning copy of the element.
    ContextData GetValue(const char* key, int index);

    /// As GetValue(const char*, int), but gives a view: what is written through it changes this document.
    ContextData GetValuePtr(const char* key, int index);

    /// @name Typed reading by key
    /// Each gives the zero value named when the member is absent or of another kind.
    /// @{
    std::string GetValueStr(const char* key);    ///< else ""
    std::string GetValueStr2(const char* key);   ///< else "NULL", also for an empty string
    int GetValueInt(const char* key);            ///< else 0
    unsigned int GetValueUInt(const char* key);  ///< else 0
    /// 0 when the member is null. Any other kind is converted by jsoncpp, which reports what it cannot convert.
    unsigned long long GetValueUInt64(const char* key);
    double GetValueDouble(const char* key);  ///< else 0.0
    bool GetValueBool(const char* key);      ///< else false
    /// @}

private:
    Json::Value& Target_() { return m_pValue != nullptr ? *m_pValue : m_value; }

    Json::Value m_value;
    Json::Value* m_pValue = nullptr;
    std::string m_strJson;
};

#endif  // LUMORA_COMMON_CONTEXT_DATA_H
