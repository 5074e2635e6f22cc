// The framework's exceptions and the exact texts of its standard messages.
#pragma once
#include <exception>
#include <string>
#include <type_traits>

#include <Quor/String.h>

namespace Quor {

/// Base of every framework exception; what() is exactly the message text.
class QUOR_API Exception : public std::exception {
 public:
  explicit Exception(String8 text, U32 id = 0) : text_(std::move(text)), id_(id) {}
  char const* what() const noexcept override { return text_.charPtr(); }
  String8 const& text() const { return text_; }
  /// An id naming the kind of failure (for example 12 for value parse errors).
  U32 id() const { return id_; }

 private:
  String8 text_;
  U32 id_;
};

/// A bad value, index or text.
class QUOR_API RangeException : public Exception { public: using Exception::Exception; };
/// A failure inside the system (a set-up call that failed).
class QUOR_API InternalException : public Exception { public: using Exception::Exception; };
/// A name that is already taken.
class QUOR_API NameInUseException : public Exception { public: using Exception::Exception; };
/// An operation that the class does not implement.
class QUOR_API NoImplementationException : public Exception { public: using Exception::Exception; };

[[noreturn]] QUOR_API void throwRangeException(String8 const& text);
[[noreturn]] QUOR_API void throwInternalException(String8 const& text);
[[noreturn]] QUOR_API void throwNameInUseException(String8 const& text);

/// "<Class>::<attribute> < <min> or > <max> not allowed"; the bounds are texts so that
/// they print as declared (decimal or 0x-hexadecimal).
QUOR_API String8 rangeMessage(char const* cls, char const* attr, char const* min, char const* max);
/// "null _<attribute> parameter to mutator for <namespace>::<Class>::<attribute> not
/// allowed" followed by one double quote, which belongs to the message. The class comes
/// with its namespace ("App::Widget"), as the caller names it.
QUOR_API String8 nullParameterMessage(char const* qualifiedClass, char const* attr);
/// The text of a write through the generic interface on a const instance.
QUOR_API char const* constInstanceMessage();

/// Throws RangeException with rangeMessage() when v is outside [min, max]; returns v.
/// The bounds are given twice: as values and as their declared text.
template <class T, class Lo, class Hi>
T const& checkRange(char const* cls, char const* attr, T const& v, Lo min, char const* minText,
                    Hi max, char const* maxText) {
  if (!(v >= static_cast<T>(min) && v <= static_cast<T>(max)))  // NaN fails too
    throwRangeException(rangeMessage(cls, attr, minText, maxText));
  return v;
}

/// Checks a bounded attribute against bounds written once: QUOR_CHECK_RANGE("TimerWheel",
/// "tickMsecs", v, 1, 3600000) prints the bounds exactly as written here.
#define QUOR_CHECK_RANGE(cls, attr, v, min, max) \
  ::Quor::checkRange(cls, attr, v, min, #min, max, #max)

/// Throws the null-parameter RangeException when p is null.
template <class P>
void checkNotNull(char const* qualifiedClass, char const* attr, P const& p) {
  if (!p) throwRangeException(nullParameterMessage(qualifiedClass, attr));
}

}  // namespace Quor
