#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <type_traits>
#include <utility>

// An error that converts to any Result<T>: `return Error("Unable to open file: " + path);`
struct Error
{
    explicit Error(QString text) : message(std::move(text)) {}
    QString message;
};

// A value or an English, user-readable error text. Results are how fallible
// operations report failure throughout the code base; nothing throws.
template <typename T>
class [[nodiscard]] Result
{
public:
    Result(const T &value) : m_value(value) {}
    Result(T &&value) : m_value(std::move(value)) {}
    Result(const Error &error) : m_error(error.message) {}
    Result(Error &&error) : m_error(std::move(error.message)) {}

    static Result failure(const QString &message) { return Result(Error(message)); }

    bool isSuccessful() const { return m_value.has_value(); }
    bool isError() const { return !m_value.has_value(); }
    explicit operator bool() const { return isSuccessful(); }

    const QString &error() const { return m_error; }

    const T &value() const & { return *m_value; }
    T &value() & { return *m_value; }
    T &&value() && { return std::move(*m_value); }
    const T &operator*() const & { return *m_value; }
    T &operator*() & { return *m_value; }
    const T *operator->() const { return &*m_value; }
    T *operator->() { return &*m_value; }

    T valueOr(T fallback) const { return m_value ? *m_value : std::move(fallback); }

    // Keeps the error, replacing the value type: `return Error(r.error())` in one word.
    Error toError() const { return Error(m_error); }

private:
    std::optional<T> m_value;
    QString m_error;
};

// Success or failure alone.
template <>
class [[nodiscard]] Result<void>
{
public:
    Result() = default;
    Result(const Error &error) : m_failed(true), m_error(error.message) {}
    Result(Error &&error) : m_failed(true), m_error(std::move(error.message)) {}

    static Result success() { return Result(); }
    static Result failure(const QString &message) { return Result(Error(message)); }

    bool isSuccessful() const { return !m_failed; }
    bool isError() const { return m_failed; }
    explicit operator bool() const { return isSuccessful(); }
    const QString &error() const { return m_error; }
    Error toError() const { return Error(m_error); }

private:
    bool m_failed = false;
    QString m_error;
};

using VoidResult = Result<void>;

// Several failures read as one message: "first; second".
inline QString joinErrors(const QStringList &errors)
{
    return errors.join(QStringLiteral("; "));
}

// The error texts of any number of results, in argument order; successes add nothing.
template <typename... Results>
QStringList collectErrors(const Results &...results)
{
    QStringList errors;
    (
        [&errors](const auto &r) {
            if (r.isError())
                errors << r.error();
        }(results),
        ...);
    return errors;
}
