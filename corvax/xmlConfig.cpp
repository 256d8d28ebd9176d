#include "corvax/xmlConfig.h"

#include "corvax/exception.h"
#include "corvax/format.h"
#include "corvax/system.h"

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>

namespace Corvax {

namespace {

constexpr char kRoot[] = "config";

// Far above any real configuration: a damaged or foreign file is refused unread.
constexpr uint64_t kMaxFileSizeBytes = 16U << 20;

class XmlConfigImpl : public XmlConfig, public ObjectImpl {
public:
   explicit XmlConfigImpl(std::string fileName) : _fileName(std::move(fileName)) {}

   void Read() override;
   void Save() override;
   bool Get(const std::string& path, std::string& value) const override;
   bool Get(const std::string& path, int32_t& value) const override;
   bool Get(const std::string& path, bool& value) const override;
   void Set(const std::string& path, const std::string& value) override;
   int AddElement(const std::string& path, const std::string& name) override;
   bool GetChildren(const std::string& path, const std::string& name,
                    std::vector<std::string>& elements) const override;
   std::vector<Key> GetKeys() const override;
   std::string Where(const std::string& path) const override;

private:
   pugi::xml_node Find(const std::string& path) const;
   pugi::xml_node FindOrAdd(const std::string& path);
   int LineAt(ptrdiff_t offset) const;
   [[noreturn]] void ThrowWrongType(const std::string& path, const std::string& value,
                                    const char* type) const;

   const std::string _fileName;
   pugi::xml_document _document;
   std::string _text; // the file as it was read, for line numbers
};

/// Splits "interval[3]" into name and index; false for an index that is not a number.
bool SplitStep(std::string_view step, std::string& name, int& index)
{
   index = 0;
   const size_t bracket = step.find('[');
   name = step.substr(0, bracket);
   if (bracket == std::string_view::npos) {
      return !name.empty();
   }
   const std::string_view digits = step.substr(bracket + 1);
   const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
   return error == std::errc() && std::string_view(end, digits.data() + digits.size()) == "]";
}

pugi::xml_node Child(pugi::xml_node parent, std::string_view step)
{
   std::string name;
   int index = 0;
   if (!SplitStep(step, name, index)) {
      return {};
   }
   pugi::xml_node child = parent.child(name.c_str());
   while (child && index-- > 0) {
      child = child.next_sibling(name.c_str());
   }
   return child;
}

template <class Visit>
void ForEachStep(std::string_view path, Visit visit)
{
   while (!path.empty()) {
      const size_t slash = path.find('/');
      visit(path.substr(0, slash));
      path.remove_prefix(std::min(path.size(), slash == path.npos ? slash : slash + 1));
   }
}

std::string ReadFile(const std::string& fileName)
{
   const Ref<FileHandle> file = System::GetFactory().NewFileHandle();
   file->Open(fileName, FILE_READ, FileCreation::OPEN_EXISTING);
   const uint64_t size = file->GetSize();
   if (size > kMaxFileSizeBytes) {
      throw FileFormatException(
         Format("%1 is not a configuration file: it has %2 bytes", fileName, size));
   }
   std::string text(static_cast<size_t>(size), '\0');
   text.resize(file->Read(text.data(), text.size()));
   return text;
}

void XmlConfigImpl::Read()
{
   _text = ReadFile(_fileName);
   pugi::xml_document document;
   const pugi::xml_parse_result result = document.load_buffer(_text.data(), _text.size());
   if (result.status == pugi::status_out_of_memory) {
      throw OutOfMemoryException();
   }
   if (!result) {
      throw FileFormatException(Format("%1:%2: not well-formed XML: %3", _fileName,
                                       LineAt(result.offset), result.description()));
   }
   if (!document.child(kRoot)) {
      throw FileFormatException(Format("%1: the root element is not \"%2\"", _fileName, kRoot));
   }
   _document = std::move(document);
}

struct StringWriter : pugi::xml_writer {
   std::string text;
   void write(const void* data, size_t size) override
   {
      text.append(static_cast<const char*>(data), size);
   }
};

void XmlConfigImpl::Save()
{
   if (!_document.child(kRoot)) {
      _document.append_child(kRoot);
   }
   StringWriter writer;
   _document.save(writer, "  ");

   const std::string newFileName = _fileName + ".new";
   const Ref<FileHandle> file = System::GetFactory().NewFileHandle();
   file->Open(newFileName, FILE_WRITE, FileCreation::CREATE_ALWAYS);
   file->WriteAll(writer.text.data(), writer.text.size());
   file->Flush();
   file->Close();
   System::GetFactory().Rename(newFileName, _fileName);
}

pugi::xml_node XmlConfigImpl::Find(const std::string& path) const
{
   pugi::xml_node node = _document.child(kRoot);
   ForEachStep(path, [&node](std::string_view step) { node = Child(node, step); });
   return node;
}

pugi::xml_node XmlConfigImpl::FindOrAdd(const std::string& path)
{
   pugi::xml_node node = _document.child(kRoot);
   if (!node) {
      node = _document.append_child(kRoot);
   }
   ForEachStep(path, [&node](std::string_view step) {
      pugi::xml_node child = Child(node, step);
      if (!child) {
         std::string name;
         int index = 0;
         Assert(SplitStep(step, name, index), "a key path is names joined by slashes");
         child = node.append_child(name.c_str());
      }
      node = child;
   });
   return node;
}

bool XmlConfigImpl::Get(const std::string& path, std::string& value) const
{
   const pugi::xml_node node = Find(path);
   if (!node) {
      return false;
   }
   value = node.text().get();
   return true;
}

bool XmlConfigImpl::Get(const std::string& path, int32_t& value) const
{
   std::string text;
   if (!Get(path, text)) {
      return false;
   }
   int32_t number = 0;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
   if (error != std::errc() || end != text.data() + text.size()) {
      ThrowWrongType(path, text, "an integer");
   }
   value = number;
   return true;
}

bool XmlConfigImpl::Get(const std::string& path, bool& value) const
{
   std::string text;
   if (!Get(path, text)) {
      return false;
   }
   const bool yes = text == "true" || text == "1";
   if (!yes && text != "false" && text != "0") {
      ThrowWrongType(path, text, "\"true\" or \"false\"");
   }
   value = yes;
   return true;
}

void XmlConfigImpl::Set(const std::string& path, const std::string& value)
{
   FindOrAdd(path).text().set(value.c_str());
}

int XmlConfigImpl::AddElement(const std::string& path, const std::string& name)
{
   pugi::xml_node parent = FindOrAdd(path);
   const auto siblings = parent.children(name.c_str());
   const auto index = std::distance(siblings.begin(), siblings.end());
   parent.append_child(name.c_str());
   return static_cast<int>(index);
}

bool XmlConfigImpl::GetChildren(const std::string& path, const std::string& name,
                                std::vector<std::string>& elements) const
{
   elements.clear();
   for ([[maybe_unused]] const pugi::xml_node child : Find(path).children(name.c_str())) {
      elements.push_back(Format("%1[%2]", name, elements.size()));
   }
   return !elements.empty();
}

/// pugixml's walker does not recurse, so a file of any depth is listed safely.
struct KeyLister : pugi::xml_tree_walker {
   std::vector<std::pair<std::string, pugi::xml_node>> keys;
   std::vector<std::string> steps;

   bool for_each(pugi::xml_node& node) override
   {
      if (node.type() != pugi::node_element) {
         return true;
      }
      steps.resize(static_cast<size_t>(depth()));
      steps.emplace_back(node.name());
      const bool isContainer = std::ranges::any_of(
         node.children(), [](const pugi::xml_node c) { return c.type() == pugi::node_element; });
      if (!isContainer) {
         std::string path;
         for (const std::string& step : steps) {
            path += path.empty() ? step : "/" + step;
         }
         keys.emplace_back(std::move(path), node);
      }
      return true;
   }
};

std::vector<XmlConfig::Key> XmlConfigImpl::GetKeys() const
{
   KeyLister lister;
   pugi::xml_node root = _document.child(kRoot);
   root.traverse(lister);
   std::vector<Key> keys;
   for (const auto& [path, node] : lister.keys) {
      keys.push_back({path, node.text().get(), LineAt(node.offset_debug())});
   }
   return keys;
}

std::string XmlConfigImpl::Where(const std::string& path) const
{
   const int line = LineAt(Find(path).offset_debug());
   return line > 0 ? Format("%1:%2", _fileName, line) : _fileName;
}

int XmlConfigImpl::LineAt(ptrdiff_t offset) const
{
   if (offset < 0) {
      return 0;
   }
   const auto end = _text.begin() + std::min(offset, static_cast<ptrdiff_t>(_text.size()));
   return static_cast<int>(std::count(_text.begin(), end, '\n')) + 1;
}

void XmlConfigImpl::ThrowWrongType(const std::string& path, const std::string& value,
                                   const char* type) const
{
   throw InvalidArgumentException(
      Format("%1: '%2' is not %3, as %4 must be", Where(path), value, type, path));
}

} // namespace

XmlConfig::~XmlConfig() = default;

void GetXmlConfig(const std::string& fileName, Ref<XmlConfig>& config)
{
   config = MakeRef<XmlConfigImpl>(fileName);
}

} // namespace Corvax
