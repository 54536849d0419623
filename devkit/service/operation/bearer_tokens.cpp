#include "bearer_tokens.h"

#include <algorithm>
#include <string_view>

#include "common/text.h"
#include "host/output.h"
#include "token_file.h"

namespace {

SecretText readPresent(const std::string& file)
{
    std::optional<SecretText> token = readToken(file);
    if (!token)
        throw UsageError("the token file " + file + " is not there");
    return *std::move(token);
}

// 1 if they are the same. As many steps as the shown one has characters; how long the right one
// is, is no secret.
unsigned isSame(std::string_view shown, std::string_view right)
{
    unsigned difference = shown.size() == right.size() ? 0 : 1;
    for (size_t i = 0; i < shown.size(); ++i)
        difference |= static_cast<unsigned char>(shown[i]) ^
                      static_cast<unsigned char>(right[i % right.size()]);
    const volatile unsigned all = difference;
    return all == 0 ? 1 : 0;
}

}  // namespace

BearerTokens::BearerTokens(std::vector<std::string> files) : m_files(std::move(files))
{
    m_tokens.push_back(readOrMakeToken(m_files.front()));
    for (size_t i = 1; i < m_files.size(); ++i)
        m_tokens.push_back(readPresent(m_files[i]));
}

bool BearerTokens::reload()
{
    std::vector<SecretText> tokens;
    for (const std::string& file : m_files)
        tokens.push_back(readPresent(file));
    const std::lock_guard lock(m_mutex);
    m_tokens.swap(tokens);
    return m_tokens != tokens;
}

SecretText BearerTokens::text() const
{
    const std::lock_guard lock(m_mutex);
    return m_tokens.front();
}

bool BearerTokens::isShownBy(const std::string& authorization) const
{
    constexpr std::string_view scheme = "Bearer ";
    if (authorization.size() < scheme.size() ||
        !equalIgnoringCase(std::string_view(authorization).substr(0, scheme.size()), scheme))
        return false;
    const std::string_view shown = std::string_view(authorization).substr(scheme.size());
    const std::lock_guard lock(m_mutex);
    unsigned isOne = 0;
    for (const SecretText& token : m_tokens)
        isOne |= isSame(shown, token);
    return isOne != 0;
}
