// Reads the store's XML documents, and writes those that it is sent.
// In memory only. What comes from a store is taken for hostile.
#include "platform/s3/documents.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <pugixml.hpp>

#include "platform/s3/digest.h"

namespace {

// Line ends and blanks in a text are the store's; nothing is made nicer.
constexpr unsigned reading = pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata_single;

// The root of a document with this name; an empty node for anything else.
class document_of {
 public:
  document_of(std::string_view text, const char *root) {
    if (!document_.load_buffer(text.data(), text.size(), reading, pugi::encoding_utf8)) return;
    const pugi::xml_node top = document_.document_element();
    if (std::strcmp(top.name(), root) == 0) root_ = top;
  }
  const pugi::xml_node &operator*() const { return root_; }
  const pugi::xml_node *operator->() const { return &root_; }
  explicit operator bool() const { return !root_.empty(); }

 private:
  pugi::xml_document document_;
  pugi::xml_node root_;
};

// Like "2026-11-21T20:32:50.123Z". What is no time counts as later than any other, so that
// its object never looks old.
double seconds_of(const char *text) {
  std::tm parts{};
  const char *rest = ::strptime(text, "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return std::numeric_limits<double>::infinity();
  const double fraction = *rest == '.' ? std::strtod(rest, nullptr) : 0;
  return static_cast<double>(::timegm(&parts)) + fraction;
}

// Listings are asked for with encoding-type=url, as XML cannot carry every byte of a key. A "%"
// without two digits is unchanged, and "+" is a blank.
std::string decoded(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() ? s3_hex_value(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? s3_hex_value(text[i + 2]) : -1;
    if (text[i] == '%' && high >= 0 && low >= 0) {
      result += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      result += text[i] == '+' ? ' ' : text[i];
    }
  }
  return result;
}

// The key in a listing, without the place's prefix. False when it was not asked for.
bool read_key(const pugi::xml_node &listing, const pugi::xml_node &entry,
              const s3_prefixes &prefixes, std::string &key) {
  key = entry.child_value("Key");
  if (std::strcmp(listing.child_value("EncodingType"), "url") == 0) key = decoded(key);
  // A store that lists other keys must not make the caller delete or count them.
  if (!key.starts_with(prefixes.of_place)) return false;
  key.erase(0, prefixes.of_place.size());
  return key.starts_with(prefixes.of_keys);
}

// Line ends and tabs go as numbers, because a parser would turn them into blanks.
void append_element(std::string &to, const char *name, std::string_view text) {
  to.append("<").append(name).append(">");
  for (const char byte : text) {
    switch (byte) {
      case '&':
        to += "&amp;";
        break;
      case '<':
        to += "&lt;";
        break;
      case '>':
        to += "&gt;";
        break;
      case '"':
        to += "&quot;";
        break;
      case '\t':
      case '\n':
      case '\r':
        to.append("&#").append(std::to_string(byte)).append(";");
        break;
      default:
        to += byte;
    }
  }
  to.append("</").append(name).append(">");
}

}  // namespace

bool s3_read_error(std::string_view text, s3_error_document &error) {
  const document_of document(text, "Error");
  if (!document) return false;
  error.code = document->child_value("Code");
  error.message = document->child_value("Message");
  error.region = document->child_value("Region");
  error.endpoint = document->child_value("Endpoint");
  return true;
}

bool s3_read_field(std::string_view text, const char *root, const char *name, std::string &value) {
  const document_of document(text, root);
  value = document->child_value(name);
  return !value.empty();
}

bool s3_read_objects(std::string_view text, const s3_prefixes &prefix,
                     std::vector<s3_listed> &objects, std::string &next) {
  const document_of document(text, "ListBucketResult");
  if (!document) return false;
  for (const pugi::xml_node &entry : document->children("Contents")) {
    s3_listed &object = objects.emplace_back();
    if (!read_key(*document, entry, prefix, object.key)) return false;
    object.length = entry.child("Size").text().as_llong(-1);
    object.etag = s3_unquoted(entry.child_value("ETag"));
    object.modified = seconds_of(entry.child_value("LastModified"));
  }
  const bool more = document->child("IsTruncated").text().as_bool();
  next = more ? document->child_value("NextContinuationToken") : "";
  // A listing that goes on, but names no next page, is not whole.
  return !more || !next.empty();
}

bool s3_read_uploads(std::string_view text, const s3_prefixes &prefix,
                     std::vector<s3_upload> &uploads, bool &more) {
  const document_of document(text, "ListMultipartUploadsResult");
  if (!document) return false;
  for (const pugi::xml_node &entry : document->children("Upload")) {
    s3_upload &upload = uploads.emplace_back();
    if (!read_key(*document, entry, prefix, upload.key)) return false;
    upload.id = entry.child_value("UploadId");
    upload.initiated = seconds_of(entry.child_value("Initiated"));
  }
  more = document->child("IsTruncated").text().as_bool();
  return true;
}

bool s3_read_parts(std::string_view text, std::vector<s3_part> &parts, int &next) {
  const document_of document(text, "ListPartsResult");
  if (!document) return false;
  for (const pugi::xml_node &entry : document->children("Part")) {
    parts.push_back({.number = entry.child("PartNumber").text().as_int(),
                     .etag = s3_unquoted(entry.child_value("ETag")),
                     .length = entry.child("Size").text().as_llong(-1)});
  }
  const bool more = document->child("IsTruncated").text().as_bool();
  next = more ? document->child("NextPartNumberMarker").text().as_int() : 0;
  return true;
}

bool s3_read_failed(std::string_view text, std::string_view prefix,
                    std::vector<s3_failed_key> &failed) {
  const document_of document(text, "DeleteResult");
  if (!document) return false;
  for (const pugi::xml_node &entry : document->children("Error")) {
    s3_failed_key one{.key = {}, .code = entry.child_value("Code")};
    if (!read_key(*document, entry, {prefix, ""}, one.key)) return false;
    // An object that is not there is what was wanted.
    if (one.code != "NoSuchKey") failed.push_back(std::move(one));
  }
  return true;
}

std::string s3_complete_document(const std::vector<s3_part> &parts) {
  std::string text = "<CompleteMultipartUpload>";
  for (const s3_part &part : parts) {
    text += "<Part>";
    append_element(text, "PartNumber", std::to_string(part.number));
    append_element(text, "ETag", "\"" + part.etag + "\"");
    text += "</Part>";
  }
  return text + "</CompleteMultipartUpload>";
}

std::string s3_remove_document(std::string_view prefix, const std::vector<std::string> &keys) {
  // Quiet: the answer names failures only, so 1,000 removals make a short document.
  std::string text = "<Delete><Quiet>true</Quiet>";
  for (const std::string &key : keys) {
    text += "<Object>";
    append_element(text, "Key", std::string(prefix) + key);
    text += "</Object>";
  }
  return text + "</Delete>";
}
