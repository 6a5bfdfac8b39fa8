// What writers killed mid-save leave in a bucket: unfinished multipart uploads and the
// temporary objects a replacement writes beside its target. Found by age and removed.
#include "s3/Errors.hpp"
#include "s3/Http.hpp"
#include "s3/Xml.hpp"

#include "Utf.hpp"

#include <stratum/storage/vfs/S3Settings.hpp>

#include <cstring>
#include <ctime>

namespace stratum::storage::vfs {

namespace {

using namespace detail::s3;

// A name this library gives a temporary object beside a file it replaces: "." and 16 of
// [a-z0-9] (a commit), or ".copy-" and 16 of [0-9a-f] (a copy over a file), then ".tmp".
bool temporaryName(std::string const& key) {
    std::string const name = key.substr(key.rfind('/') + 1);
    bool const copy = name.rfind(".copy-", 0) == 0;
    std::size_t const start = copy ? 6 : 1;
    return name.size() == start + 20 && name[0] == '.' && name.compare(start + 16, 4, ".tmp") == 0 &&
           name.find_first_not_of(copy ? "0123456789abcdef" : "abcdefghijklmnopqrstuvwxyz0123456789", start) == start + 16;
}

HttpRequest make(std::string method, std::string const& bucket, std::string key, Pairs query) {
    HttpRequest request;
    request.method = std::move(method);
    request.bucket = bucket;
    request.key = std::move(key);
    request.query = std::move(query);
    request.xmlAnswer = request.method == "GET";
    return request;
}

} // namespace

S3Litter removeS3Litter(S3Settings const& settings, std::string const& bucket, std::string const& prefix,
                        std::chrono::seconds olderThan, bool dryRun) {
    HttpClient http(settings);
    std::u16string bucketText;
    detail::fromUtf8(bucket, bucketText);
    AbsoluteIRI const iri(u"s3://" + bucketText);
    std::time_t const before = std::time(nullptr) - std::time_t(olderThan.count());
    auto send = [&](HttpRequest const& toSend, std::string const& what) {
        HttpResponse response = http.send(toSend);
        if (!response.ok()) {
            throw failure(response, iri, what);
        }
        return response;
    };
    S3Litter found;
    UploadPage uploads;
    do {
        HttpRequest list = make("GET", bucket, "", {{"uploads", ""}, {"prefix", prefix}});
        list.xmlRoot = "ListMultipartUploadsResult";
        if (!uploads.nextKey.empty()) {
            list.query.emplace_back("key-marker", uploads.nextKey);
            list.query.emplace_back("upload-id-marker", uploads.nextUploadId);
        }
        uploads = parseUploadPage(send(list, "ListMultipartUploads").body);
        for (auto const& upload : uploads.uploads) {
            if (parseListedTime(upload.initiated) > before) {
                continue;
            }
            found.uploads.push_back(upload.key);
            if (!dryRun) {
                HttpResponse const response = http.send(make("DELETE", bucket, upload.key, {{"uploadId", upload.uploadId}}));
                if ( !response.ok() && response.errorCode != "NoSuchUpload") {
                    throw failure(response, iri, "AbortMultipartUpload " + upload.key);
                }
            }
        }
    } while (!uploads.nextKey.empty());
    ListPage objects;
    do {
        HttpRequest list = make("GET", bucket, "", {{"list-type", "2"}, {"prefix", prefix}});
        list.xmlRoot = "ListBucketResult";
        if (!objects.nextToken.empty()) {
            list.query.emplace_back("continuation-token", objects.nextToken);
        }
        objects = parseListPage(send(list, "ListObjectsV2").body);
        for (std::size_t i = 0; i < objects.keys.size(); ++i) {
            if (!temporaryName(objects.keys[i]) || parseListedTime(objects.modified[i]) > before) {
                continue;
            }
            found.objects.push_back(objects.keys[i]);
            if (!dryRun) {
                send(make("DELETE", bucket, objects.keys[i], {}), "DELETE " + objects.keys[i]);
            }
        }
    } while (!objects.nextToken.empty());
    return found;
}

} // namespace stratum::storage::vfs
