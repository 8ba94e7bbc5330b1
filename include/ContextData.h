// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_CONTEXT_DATA_H
#define LUMORA_COMMON_CONTEXT_DATA_H

#include <json/json.h>

#include <string>

#include "LumoraApi.h"

/// A JSON document, in which modules exchange data and the host receives results.
///
/// A document either *owns* its value or is a *view* of a `Json::Value` owned elsewhere; only assignment changes this.
/// Every method works on that value, called the *target*.
///
/// A key is one plain member name, not null, without path or index syntax; a dot has no special meaning. To reach a
/// nested member, take a sub-document. **Every method that takes a key, getters included, inserts a null member when
/// the key is absent**, and first turns a null target into an object. Of these methods, only IsValid() and
/// RemoveMember() remove that member again. Reading an absent key therefore changes the document and its MakeStr().
///
/// **Ownership.** The owner keeps a viewed value, which must outlive the view. A copy of an owning document owns a deep
/// copy; a copy of a view is another view of the same value. Assignment does the same: it can make an owning document a
/// view, or a view an owning document, and never writes to the value that a view showed before. A view from
/// GetValuePtr() is valid until its element is removed, a value that contains the element is replaced or cleared, or
/// the document is destroyed. So do not assign a document a view of a value within itself: that value ends first. Walk
/// down with a view of its own, `ContextData view(document.GetValue())`, or with GetValue().
/// **Threads.** One thread at a time; using a view counts as using the document that it views. No locking.
/// **Errors.** MakeData() returns false; nothing else reports a failure. Kinds and conversions are jsoncpp's and differ
/// slightly between its versions, for example in whether a whole number is a double. Misuse fails as in jsoncpp, with
/// an assertion or an exception that is not caught: a key on an array or a scalar, an index on an object, Clear() of a
/// scalar, a conversion that is not possible. jsoncpp 1.9.5 throws `Json::LogicError` for all of these.
///
/// When memory runs out, `std::bad_alloc` passes through, or from jsoncpp `Json::RuntimeError`, for the texts that it
/// allocates with `malloc`. Clear() and GetValue() without a key need no memory. The document stays valid and usable.
/// Members keep their values, except that the content after MakeData() is unspecified, and that a member that was
/// absent or null may remain as a null or as an array of nulls. Nothing leaks, except in jsoncpp 1.9.5: when copying a
/// value with comments fails, the part that was copied is never freed. Comments come from MakeData().
/// **Limits.** jsoncpp 1.9.5 parses at most 1000 levels of nesting, where a scalar counts as a level; for deeper text
/// MakeData() throws `Json::RuntimeError`. Catch it if the text comes from outside. MakeStr() has no limit and recurses
/// once per level: on a PC a document of 100 000 levels, which only code can build, overflows the stack.
/// @ingroup document
class LUMORA_API ContextData {
public:
    /// Owns a JSON null.
    ContextData() = default;

    /// Owns a copy of `value`.
    ContextData(Json::Value value);

    /// Views `*value`, which the caller keeps. For a null pointer the document owns a JSON null.
    ContextData(Json::Value* value);

    /// @name Writing by key
    /// Each always returns true and logs nothing.
    /// @{

    /// Writes a string.
    bool SetValue(const char* key, std::string value);
    /// Writes a string; a null pointer writes the empty string.
    bool SetValue(const char* key, const char* value);
    /// Writes a signed number. There is no overload for `bool`, which is written as the number 0 or 1.
    bool SetValue(const char* key, int value);
    /// Writes an unsigned number.
    bool SetValue(const char* key, unsigned int value);
    /// Writes an unsigned 64-bit number.
    bool SetValue(const char* key, unsigned long long value);
    /// Sign-extends the value to 64 bits and writes it as an *unsigned* number: -1 becomes 18446744073709551615.
    bool SetValue(const char* key, long value);
    /// Writes a real number.
    bool SetValue(const char* key, double value);
    /// *Appends* a copy of the target of `other` to the array under `key`; a null member becomes an array first. Use
    /// SetValueNoArry() to assign.
    bool SetValue(const char* key, ContextData& other);
    /// Replaces the member with a copy of the target of `other`.
    bool SetValueNoArry(const char* key, ContextData& other);
    /// Appends a string to the array under `key`; a null member becomes an array first.
    bool SetValueInArray(const char* key, std::string value);
    /// Appends a string in the same way; a null pointer appends the empty string.
    bool SetValueInArray(const char* key, const char* value);
    /// Removes the member if it exists.
    bool RemoveMember(const char* key);
    /// @}

    /// Removes all members of an object or all elements of an array; the target keeps its kind.
    /// @return always true.
    bool Clear();

    /// Parses JSON text into the target. Comments are allowed, and text after the first value is ignored. After a
    /// failure or an exception the content is unspecified; MakeData() may be called again.
    /// @param text  zero-terminated JSON text. Null logs the error "input is null" and changes nothing.
    /// @return whether parsing succeeded. An owning document logs a failure as "m_reader paring error: [%p]=> %s"; a
    ///         view does not log it.
    bool MakeData(const char* text);

    /// Writes the target as compact JSON on one line that ends with a line feed. After an exception the text is empty.
    /// @return the text, owned by this document and valid until its next MakeStr(), an assignment to it or its
    ///         destruction.
    const char* MakeStr();

    /// Returns the target itself.
    /// @return never null.
    Json::Value* GetValue();

    /// Tests a member, and removes it when it is JSON null or was absent.
    /// @return true when the member exists and is not JSON null.
    bool IsValid(const char* key);

    /// Returns the number of elements of an array member or of members of an object member, else 0.
    int GetSize(const char* key);

    /// Takes a sub-document. The result depends on whether this document owns its value.
    /// @return an owning copy: of the member if this document owns its value, but of the member's *element 0* if this
    ///         document is a view (a null member then becomes an array of one null).
    ContextData GetValue(const char* key);

    /// Takes one element of an array as a sub-document.
    /// @param key    the member, an array or null.
    /// @param index  0 or more; a shorter array is extended with nulls.
    /// @return an owning copy of the element.
    ContextData GetValue(const char* key, int index);

    /// Like GetValue(const char*, int), but returns a view: writing through it changes this document.
    ContextData GetValuePtr(const char* key, int index);

    /// @name Typed reading by key
    /// Each except GetValueUInt64() returns the stated default when the member is absent or of another kind.
    /// @{
    std::string GetValueStr(const char* key);    ///< else ""
    std::string GetValueStr2(const char* key);   ///< else "NULL", also for an empty string
    int GetValueInt(const char* key);            ///< else 0
    unsigned int GetValueUInt(const char* key);  ///< else 0
    /// 0 when the member is null. jsoncpp converts any other kind; an impossible conversion is misuse.
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
