#include <cstdio>
#include <string>
#include <utility>

#include "plist/base64.h"
#include "plist/scalar_text.h"
#include "plist/xml.h"
#include "plist/xml_toolkit.h"
#include "plist/xml_write_cache.h"

namespace nightjar::plist {

namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";
constexpr std::size_t kBase64LineLength = 76;

// Writes values in the customary layout: one element per line, indented by one
// tab per level of nesting below <plist>. With a cache, the records inside
// arrays (outside any other record) are written from their kept forms, or
// written and kept.
class XmlWriter {
 public:
  explicit XmlWriter(std::string& out, XmlWriteCache* cache = nullptr, XmlPieces* pieces = nullptr)
      : out_(out), cache_(cache), pieces_(pieces) {}

  // With pieces: hands the bytes written since the last kept form on.
  void flush() {
    if (pieces_ == nullptr || out_.empty())
      return;
    pieces_->between.push_back(std::move(out_));
    out_.clear();
    pieces_->pieces.push_back(pieces_->between.back());
  }

  void write(const Value& value, std::size_t depth) {
    switch (value.kind()) {
      case Kind::Dictionary:
        return writeDictionary(*value.asDictionary(), depth);
      case Kind::Array:
        return writeArray(*value.asArray(), depth);
      case Kind::String:
        return writeLeaf("string", escapeXmlText(*value.asString()), depth);
      case Kind::Integer:
        return writeLeaf("integer", std::to_string(*value.asInteger()), depth);
      case Kind::Real:
        return writeLeaf("real", formatRealText(*value.numberAsDouble()), depth);
      case Kind::Boolean:
        indent(depth);
        out_ += *value.asBoolean() ? "<true/>\n" : "<false/>\n";
        return;
      case Kind::Date:
        return writeLeaf("date", formatDateText(*value.asDate()), depth);
      case Kind::Data:
        return writeData(*value.asData(), depth);
    }
  }

 private:
  void indent(std::size_t depth) { out_.append(depth, '\t'); }

  void writeLeaf(std::string_view tag, const std::string& text, std::size_t depth) {
    indent(depth);
    out_.append("<").append(tag).append(">");
    out_ += text;
    out_.append("</").append(tag).append(">\n");
  }

  void writeDictionary(const Dictionary& entries, std::size_t depth) {
    indent(depth);
    if (entries.empty()) {
      out_ += "<dict/>\n";
      return;
    }
    out_ += "<dict>\n";
    for (const auto& [key, member] : entries) {
      if (!member.isNone()) {
        writeLeaf("key", escapeXmlText(key), depth + 1);
        write(member, depth + 1);
      }
    }
    indent(depth);
    out_ += "</dict>\n";
  }

  void writeArray(const Array& elements, std::size_t depth) {
    indent(depth);
    if (elements.empty()) {
      out_ += "<array/>\n";
      return;
    }
    out_ += "<array>\n";
    for (const Value& element : elements) {
      writeMember(element, depth + 1);
    }
    indent(depth);
    out_ += "</array>\n";
  }

  // A none member has no XML form and is left out, as if it were absent.
  void writeMember(const Value& member, std::size_t depth) {
    if (member.isNone()) {
      return;
    }
    if (cache_ == nullptr || !(member.isDictionary() || member.isArray())) {
      return write(member, depth);
    }
    const std::string* kept = cache_->find(member, depth);
    if (kept == nullptr) {
      // Only the outermost records are kept: an inner one is in its record's form.
      std::string form;
      XmlWriter(form).write(member, depth);
      kept = &cache_->keep(member, depth, std::move(form));
    }
    appendKept(*kept);
  }

  void appendKept(const std::string& form) {
    if (pieces_ == nullptr) {
      out_ += form;
      return;
    }
    flush();
    pieces_->pieces.push_back(form);
  }

  void writeData(const Bytes& bytes, std::size_t depth) {
    indent(depth);
    out_ += "<data>\n";
    out_ += encodeBase64(bytes, kBase64LineLength, std::string(depth, '\t'));
    indent(depth);
    out_ += "</data>\n";
  }

  std::string& out_;
  XmlWriteCache* cache_;
  XmlPieces* pieces_;
};

}  // namespace

std::string writeXml(const Value& value) {
  if (value.isNone()) {
    return {};
  }
  std::string out(kHeader);
  XmlWriter(out).write(value, 0);
  out += kFooter;
  return out;
}

XmlPieces writeXmlPieces(const Value& value, XmlWriteCache& cache) {
  XmlPieces document;
  if (value.isNone()) {
    return document;
  }
  document.pieces.reserve(cache.size() + cache.size() / 8 + 16);
  std::string out(kHeader);
  XmlWriter writer(out, &cache, &document);
  writer.write(value, 0);
  out += kFooter;
  writer.flush();
  cache.endWrite();
  for (std::string_view piece : document.pieces) {
    document.size += piece.size();
  }
  return document;
}

std::string writeXml(const Value& value, XmlWriteCache& cache) {
  const XmlPieces document = writeXmlPieces(value, cache);
  std::string out;
  out.reserve(document.size);
  for (std::string_view piece : document.pieces) {
    out += piece;
  }
  return out;
}

}  // namespace nightjar::plist
