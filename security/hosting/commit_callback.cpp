#include "security/hosting/commit_callback.h"

namespace HostingSecurity {

void ICommitCallback::onItem(const std::wstring&) {}

void ICommitCallback::onSecurityException(const std::wstring&, const std::wstring&) {}

void ICommitCallback::onError(const std::wstring&, const vexception&) {}

} // namespace HostingSecurity
