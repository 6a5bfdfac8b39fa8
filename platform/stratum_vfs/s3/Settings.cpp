#include <stratum/storage/vfs/S3Settings.hpp>

#include <cstdlib>
#include <fstream>
#include <map>

namespace stratum::storage::vfs {

namespace {

using Section = std::map<std::string, std::string>;

std::string env(char const* name) {
    char const* value = std::getenv(name);
    return value ? value : "";
}

std::string trim(std::string const& text) {
    auto const first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The `key = value` pairs of section `[wanted]` of an INI file; empty when the file or the
// section is missing. Comment lines start with '#' or ';'. Indented lines (the nested settings
// some tools write under a key) and lines without '=' are skipped, not errors.
Section readSection(std::string const& path, std::string const& wanted) {
    Section values;
    std::ifstream in(path);
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && (line[0] == ' ' || line[0] == '\t'))
            continue;
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (line.front() == '[') {
            if (line.back() != ']') {
                inside = false;
                continue;
            }
            std::string name = trim(line.substr(1, line.size() - 2));
            // "[profile   x]" names the same section as "[profile x]".
            if (name.compare(0, 7, "profile") == 0 && name.size() > 7 && (name[7] == ' ' || name[7] == '\t'))
                name = "profile " + trim(name.substr(8));
            inside = name == wanted;
            continue;
        }
        auto const equals = line.find('=');
        if (inside && equals != std::string::npos && equals > 0)
            values[trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
    }
    return values;
}

std::string get(Section const& section, char const* key) {
    auto const found = section.find(key);
    return found == section.end() ? std::string() : found->second;
}

// Takes the key pair of `section` when it has both halves (never half from one place, half from another).
bool takeCredentials(S3Settings& settings, Section const& section) {
    std::string id = get(section, "aws_access_key_id");
    std::string secret = get(section, "aws_secret_access_key");
    if (id.empty() || secret.empty())
        return false;
    settings.accessKeyId = std::move(id);
    settings.secretAccessKey = std::move(secret);
    settings.sessionToken = get(section, "aws_session_token");
    return true;
}

} // namespace

S3Settings S3Settings::fromEnvironment() {
    S3Settings settings;
    std::string const home = env("HOME");
    std::string profile = env("AWS_PROFILE");
    if (profile.empty())
        profile = "default";
    std::string credentialsFile = env("AWS_SHARED_CREDENTIALS_FILE");
    if (credentialsFile.empty() && !home.empty())
        credentialsFile = home + "/.aws/credentials";
    std::string configFile = env("AWS_CONFIG_FILE");
    if (configFile.empty() && !home.empty())
        configFile = home + "/.aws/config";

    // An unset HOME leaves a path empty: reading it finds nothing, like a missing file.
    Section const config = readSection(configFile, profile == "default" ? profile : "profile " + profile);

    settings.endpoint = env("AWS_ENDPOINT_URL");
    if (settings.endpoint.empty())
        settings.endpoint = get(config, "endpoint_url");

    for (std::string value : {env("AWS_REGION"), env("AWS_DEFAULT_REGION"), get(config, "region")})
        if (!value.empty()) {
            settings.region = std::move(value);
            break;
        }
    if (settings.region.empty())
        settings.region = "us-east-1";

    Section const fromEnv{{"aws_access_key_id", env("AWS_ACCESS_KEY_ID")},
                          {"aws_secret_access_key", env("AWS_SECRET_ACCESS_KEY")},
                          {"aws_session_token", env("AWS_SESSION_TOKEN")}};
    if (!takeCredentials(settings, fromEnv) && !takeCredentials(settings, readSection(credentialsFile, profile)))
        takeCredentials(settings, config);
    return settings;
}

} // namespace stratum::storage::vfs
