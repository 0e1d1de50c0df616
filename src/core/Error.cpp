#include "Error.h"

namespace tavrel {
namespace {

template <typename FromError>
QString describe(const std::exception_ptr& error, FromError fromError, const QString& unknown) {
    try {
        std::rethrow_exception(error);
    } catch (const Error& e) {
        return fromError(e);
    } catch (const std::exception& e) {
        return QString::fromUtf8(e.what());
    } catch (...) {
        return unknown;
    }
}

} // namespace

QString localizedDescription(const std::exception_ptr& error, const QString& unknown) {
    return describe(
        error, [](const Error& e) { return e.localizedDescription(); }, unknown);
}

QString debugDescription(const std::exception_ptr& error) {
    return describe(
        error, [](const Error& e) { return e.debugDescription(); }, QStringLiteral("erreur inconnue"));
}

QString technicalCause(const std::exception_ptr& error) {
    return describe(
        error, [](const Error& e) { return e.technicalCause(); }, QString());
}

} // namespace tavrel
