// S3's XML answers and request bodies.
#include "s3/Xml.hpp"

#include <pugixml.hpp>

#include <sstream>

namespace stratum::storage::vfs::detail::s3 {

namespace {

pugi::xml_document parse(std::string const& body) {
    pugi::xml_document document;
    document.load_buffer(body.data(), body.size());
    return document;
}

std::string text(pugi::xml_node node, char const* child) { return node.child(child).text().as_string(); }

std::string serialise(pugi::xml_document const& document) {
    std::ostringstream out;
    document.save(out, "", pugi::format_raw);
    return out.str();
}

} // namespace

bool hasRoot(std::string const& body, char const* root) {
    pugi::xml_document document;
    return document.load_buffer(body.data(), body.size()) && document.document_element().name() == std::string(root);
}

bool parseError(std::string const& body, std::string& code, std::string& message) {
    if (body.find("<Error") == std::string::npos) {
        return false;
    }
    pugi::xml_document const document = parse(body); // nodes live only as long as their document
    pugi::xml_node error = document.child("Error");
    if (!error) {
        return false;
    }
    code = text(error, "Code");
    message = text(error, "Message");
    if (code.empty()) {
        code = "UnknownError";
    }
    return true;
}

ListPage parseListPage(std::string const& body) {
    pugi::xml_document document = parse(body);
    pugi::xml_node result = document.child("ListBucketResult");
    ListPage page;
    for (pugi::xml_node item : result.children("Contents")) {
        page.keys.push_back(text(item, "Key"));
        page.modified.push_back(text(item, "LastModified"));
    }
    for (pugi::xml_node item : result.children("CommonPrefixes")) {
        page.prefixes.push_back(text(item, "Prefix"));
    }
    if (std::string(result.child("IsTruncated").text().as_string()) == "true") {
        page.nextToken = text(result, "NextContinuationToken");
    }
    return page;
}

UploadPage parseUploadPage(std::string const& body) {
    pugi::xml_document document = parse(body);
    pugi::xml_node result = document.child("ListMultipartUploadsResult");
    UploadPage page;
    for (pugi::xml_node item : result.children("Upload")) {
        page.uploads.push_back({text(item, "Key"), text(item, "UploadId"), text(item, "Initiated")});
    }
    if (std::string(result.child("IsTruncated").text().as_string()) == "true") {
        page.nextKey = text(result, "NextKeyMarker");
        page.nextUploadId = text(result, "NextUploadIdMarker");
    }
    return page;
}

std::time_t parseListedTime(std::string const& text) {
    std::tm parts{};
    char const* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    return end ? ::timegm(&parts) : 0;
}

std::string parseUploadId(std::string const& body) {
    return text(parse(body).child("InitiateMultipartUploadResult"), "UploadId");
}

std::string parseCopyETag(std::string const& body) {
    pugi::xml_document document = parse(body);
    pugi::xml_node result = document.first_child();
    return text(result, "ETag");
}

std::vector<std::pair<std::string, std::string>> parseDeleteErrors(std::string const& body) {
    std::vector<std::pair<std::string, std::string>> errors;
    pugi::xml_document document = parse(body);
    for (pugi::xml_node error : document.child("DeleteResult").children("Error")) {
        errors.emplace_back(text(error, "Key"), text(error, "Code") + ": " + text(error, "Message"));
    }
    return errors;
}

std::string deleteBody(std::vector<std::string> const& keys) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("Delete");
    root.append_child("Quiet").text().set("true");
    for (auto const& key : keys) {
        root.append_child("Object").append_child("Key").text().set(key.c_str());
    }
    return serialise(document);
}

std::string completeBody(std::vector<std::string> const& etags) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("CompleteMultipartUpload");
    for (std::size_t i = 0; i < etags.size(); ++i) {
        pugi::xml_node part = root.append_child("Part");
        part.append_child("PartNumber").text().set(static_cast<unsigned long long>(i + 1));
        part.append_child("ETag").text().set(etags[i].c_str());
    }
    return serialise(document);
}

} // namespace stratum::storage::vfs::detail::s3
