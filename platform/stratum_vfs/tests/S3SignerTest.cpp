// The request signer against published signatures, and where the s3 scheme finds its settings.

#include "s3/Signer.hpp"

#include <stratum/storage/vfs/S3Settings.hpp>

#include <gtest/gtest.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace s3 = stratum::storage::vfs::detail::s3;
using stratum::storage::vfs::S3Settings;

namespace {

// One case of tests/data/sigv4: the request as sent and what signing it must give.
struct Vector {
    std::string name;
    s3::Credentials credentials;
    std::string date, region, service;
    std::map<std::string, std::string> text; // "request", then "creq", "sts" and "authz"
};

// Failure messages name the case rather than dumping its bytes.
void PrintTo(Vector const& vector, std::ostream* out) { *out << vector.name; }

void loadVectors(std::string const& file, std::vector<Vector>& cases) {
    std::ifstream in(std::string(SIGV4_DATA_DIR) + '/' + file);
    Vector context;
    std::string* section = nullptr;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string word;
        if (!section && line.rfind("credentials ", 0) == 0)
            words >> word >> context.credentials.accessKeyId >> context.credentials.secretAccessKey;
        else if (!section && line.rfind("scope ", 0) == 0)
            words >> word >> context.date >> context.region >> context.service;
        else if (line.rfind("=== ", 0) == 0) {
            cases.push_back(context);
            cases.back().name = line.substr(4);
            section = &cases.back().text["request"];
        } else if (section && line.rfind("--- ", 0) == 0)
            section = &cases.back().text[line.substr(4)];
        else if (section)
            *section += (section->empty() ? "" : "\n") + line;
    }
}

std::vector<Vector> allVectors() {
    std::vector<Vector> cases;
    for (char const* file : {"suite.txt", "s3-examples.txt"})
        loadVectors(file, cases);
    return cases;
}

// Reads "METHOD target HTTP/1.1", headers (an indented line repeats the header above it), a
// blank line and the body. The path goes on the wire percent-encoded; the query decoded.
s3::Request parseRequest(std::string const& text, s3::Credentials& credentials) {
    std::istringstream in(text);
    std::string line;
    std::getline(in, line);
    s3::Request request;
    auto const space = line.find(' ');
    request.method = line.substr(0, space);
    std::string const target = line.substr(space + 1, line.rfind(' ') - space - 1);
    auto const question = target.find('?');
    request.path = s3::uriEncode(target.substr(0, question), true);
    std::istringstream query(question == std::string::npos ? "" : target.substr(question + 1));
    for (std::string pair; std::getline(query, pair, '&');) {
        auto const equals = pair.find('=');
        request.query.emplace_back(pair.substr(0, equals), equals == std::string::npos ? "" : pair.substr(equals + 1));
    }
    while (std::getline(in, line) && !line.empty()) {
        auto const colon = line.find(':');
        if (line[0] == ' ')
            request.headers.emplace_back(request.headers.back().first, line);
        else
            request.headers.emplace_back(line.substr(0, colon), line.substr(colon + 1));
        if (request.headers.back().first == "X-Amz-Security-Token")
            credentials.sessionToken = request.headers.back().second;
    }
    request.payloadHash = s3::sha256Hex(std::string(std::istreambuf_iterator<char>(in), {}));
    return request;
}

std::vector<std::string> headerValues(s3::Request const& request, std::string const& name) {
    std::vector<std::string> values;
    for (auto const& [key, value] : request.headers)
        if (strcasecmp(key.c_str(), name.c_str()) == 0)
            values.push_back(value);
    return values;
}

// The two sources differ only in a space after the commas of the Authorization value.
std::string withoutSpaceAfterComma(std::string text) {
    for (auto at = text.find(", "); at != std::string::npos; at = text.find(", ", at))
        text.erase(at + 1, 1);
    return text;
}

class SigV4Vectors : public testing::TestWithParam<Vector> {};

TEST_P(SigV4Vectors, GiveThePublishedCanonicalRequestStringToSignAndAuthorization) {
    Vector vector = GetParam();
    s3::Request request = parseRequest(vector.text.at("request"), vector.credentials);
    std::string const canonical = s3::canonicalRequest(request);
    EXPECT_EQ(canonical, vector.text.at("creq"));
    EXPECT_EQ(s3::stringToSign(canonical, vector.date, vector.region, vector.service), vector.text.at("sts"));

    s3::sign(request, vector.credentials, vector.region, vector.service, vector.date);
    auto const authorization = headerValues(request, "Authorization");
    ASSERT_EQ(authorization.size(), 1u);
    EXPECT_EQ(withoutSpaceAfterComma(authorization[0]), withoutSpaceAfterComma(vector.text.at("authz")));
    EXPECT_EQ(headerValues(request, "x-amz-date"), std::vector<std::string>{vector.date});

    // Signing again (a retried request) replaces the signer's own headers instead of adding more.
    auto const headerCount = request.headers.size();
    s3::sign(request, vector.credentials, vector.region, vector.service, vector.date);
    EXPECT_EQ(request.headers.size(), headerCount);
    EXPECT_EQ(headerValues(request, "Authorization"), authorization);
}

INSTANTIATE_TEST_SUITE_P(Published, SigV4Vectors, testing::ValuesIn(allVectors()), [](auto const& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
});

// Guards the loader: a case it dropped would pass unnoticed.
TEST(SigV4, DataFilesHoldEveryCase) { EXPECT_EQ(allVectors().size(), 20u + 4u); }

// S3's own rules beyond the vectors: the path exactly as sent, "/" encoded in the query, and the
// query sorted by encoded name ("a/" sorts after "a." decoded, before it encoded).
TEST(SigV4, SignsS3PathsAsSentAndSortsTheEncodedQuery) {
    s3::Request request{"GET", "/bucket/a%20b//./c", {{"a/", "1"}, {"a.", "2"}, {"prefix", "x/y z"}}, {{"Host", "h"}, {"X-Amz-Meta-A", "  x \t  y  "}}, "UNSIGNED-PAYLOAD"};
    EXPECT_EQ(s3::canonicalRequest(request), "GET\n/bucket/a%20b//./c\na%2F=1&a.=2&prefix=x%2Fy%20z\n"
                                             "host:h\nx-amz-meta-a:x y\n\nhost;x-amz-meta-a\nUNSIGNED-PAYLOAD");
    EXPECT_EQ(s3::uriEncode("a/b c%~+", true), "a/b%20c%25~%2B");
    EXPECT_EQ(s3::uriEncode("a/b", false), "a%2Fb");
    EXPECT_EQ(s3::amzDate(1440938160), "20150830T123600Z");
}

// MD5 as S3 wants it: hex in ETags, base64 in Content-MD5, and fed range by range for a read.
TEST(SigV4, Md5InHexBase64AndPieceByPiece) {
    EXPECT_EQ(s3::md5Base64(""), "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(s3::md5Base64("abc"), "kAFQmDzST7DWlj99KOF/cg==");
    s3::Md5 digest;
    for (char const* piece : {"a", "", "bc"})
        digest.add(piece, std::strlen(piece));
    EXPECT_EQ(digest.hex(), s3::md5Hex("abc"));
    EXPECT_EQ(s3::md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
}

// fromEnvironment over a temporary home folder and a controlled environment.
char const* const kVariables[] = {"HOME", "AWS_PROFILE", "AWS_SHARED_CREDENTIALS_FILE",
                                  "AWS_CONFIG_FILE", "AWS_ENDPOINT_URL", "AWS_REGION",
                                  "AWS_DEFAULT_REGION", "AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY",
                                  "AWS_SESSION_TOKEN"};

char const kCredentials[] = "# comment\n[default]\naws_access_key_id = CRED-ID\naws_secret_access_key=CRED-SECRET\n"
                            "[work]\n  aws_access_key_id = INDENTED\naws_access_key_id = WORK-ID\n"
                            "aws_secret_access_key = WORK-SECRET\naws_session_token = WORK-TOKEN\n"
                            "[profile work]\naws_access_key_id = WRONG\n";
char const kConfig[] = "; comment\n[default]\nregion = eu-west-3\nendpoint_url = http://config:7480\n"
                       "[work]\nregion = wrong\n[profile work]\nregion = ap-south-1\n"
                       "aws_access_key_id = CONF-WORK-ID\naws_secret_access_key = CONF-WORK-SECRET\n"
                       "s3 =\n    endpoint_url = http://nested\nnot a setting\n"
                       "[profile  solo ]\naws_access_key_id = SOLO-ID\naws_secret_access_key = SOLO-SECRET\n";

struct SettingsCase {
    char const* what;
    std::map<std::string, std::string> env; // "$D" stands for the temporary home folder
    std::string expected;                   // endpoint, region, key id, secret and token, joined by "|"
};

SettingsCase const kSettingsCases[] = {
    {"the default profile of both files", {}, "http://config:7480|eu-west-3|CRED-ID|CRED-SECRET|"},
    {"AWS_PROFILE: [x] in credentials, [profile x] in config", {{"AWS_PROFILE", "work"}}, "|ap-south-1|WORK-ID|WORK-SECRET|WORK-TOKEN"},
    {"keys only in the config file", {{"AWS_PROFILE", "solo"}}, "|us-east-1|SOLO-ID|SOLO-SECRET|"},
    {"the environment beats the files",
     {{"AWS_ACCESS_KEY_ID", "ENV-ID"}, {"AWS_SECRET_ACCESS_KEY", "ENV-SECRET"}, {"AWS_SESSION_TOKEN", "ENV-TOKEN"}, {"AWS_ENDPOINT_URL", "http://env:9000"}, {"AWS_REGION", "r1"}, {"AWS_DEFAULT_REGION", "r2"}},
     "http://env:9000|r1|ENV-ID|ENV-SECRET|ENV-TOKEN"},
    {"AWS_DEFAULT_REGION before the profile; half a key pair in the environment is ignored",
     {{"AWS_DEFAULT_REGION", "r2"}, {"AWS_ACCESS_KEY_ID", "ENV-ID"}},
     "http://config:7480|r2|CRED-ID|CRED-SECRET|"},
    {"AWS_SHARED_CREDENTIALS_FILE names the file",
     {{"AWS_SHARED_CREDENTIALS_FILE", "$D/.aws/config"}, {"AWS_PROFILE", "work"}},
     "|ap-south-1|CONF-WORK-ID|CONF-WORK-SECRET|"},
    {"named files missing", {{"AWS_SHARED_CREDENTIALS_FILE", "$D/none"}, {"AWS_CONFIG_FILE", "$D/none"}}, "|us-east-1|||"},
    {"no HOME (an empty value unsets)", {{"HOME", ""}}, "|us-east-1|||"},
    {"an unknown profile", {{"AWS_PROFILE", "nobody"}}, "|us-east-1|||"},
};

// The variables stay as the last case left them: nothing else in this program reads them.
TEST(S3Settings, FromEnvironmentTakesEachValueFromTheFirstPlaceThatHasIt) {
    std::string pattern = (std::filesystem::temp_directory_path() / "s3settings-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    std::filesystem::path const home = pattern;
    std::filesystem::create_directories(home / ".aws");
    std::ofstream(home / ".aws/credentials") << kCredentials;
    std::ofstream(home / ".aws/config") << kConfig;
    for (SettingsCase const& c : kSettingsCases) {
        SCOPED_TRACE(c.what);
        for (char const* name : kVariables)
            unsetenv(name);
        setenv("HOME", home.c_str(), 1);
        for (auto [name, value] : c.env) {
            if (auto const at = value.find("$D"); at != std::string::npos)
                value.replace(at, 2, home.string());
            value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
        }
        S3Settings const s = S3Settings::fromEnvironment();
        EXPECT_EQ(s.endpoint + "|" + s.region + "|" + s.accessKeyId + "|" + s.secretAccessKey + "|" + s.sessionToken, c.expected);
    }
    std::filesystem::remove_all(home);
}

} // namespace
