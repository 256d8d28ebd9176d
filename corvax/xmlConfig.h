#pragma once

#include "corvax/object.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Corvax {

/// A tree of keys with text values, kept in an XML file below the root element "config".
///
/// A key path is element names joined by "/": "plugins/metrix/depotDir". Where a parent has several
/// children of one name, "interval[1]" is the second; a name without an index is the first.
///
/// Errors: PlatformException where the file cannot be read or written, FileFormatException (file
/// and line named) where it is not XML of this form, InvalidArgumentException (likewise) where a
/// value is not of the requested type. Locking: none; once the tree no longer changes, any number
/// of threads may read it.
class XmlConfig : public virtual Object {
public:
   struct Key {
      std::string path; ///< without indices
      std::string value;
      int line; ///< 0 for a key set since the file was read
   };

   /// Replaces the tree by the file's. After a failure it is unchanged.
   virtual void Read() = 0;
   /// Writes the whole tree; a reader sees either the old file or the new one.
   virtual void Save() = 0;

   /// False, with `value` unchanged, when the key is absent.
   virtual bool Get(const std::string& path, std::string& value) const = 0;
   /// Decimal, with an optional minus sign.
   virtual bool Get(const std::string& path, int32_t& value) const = 0;
   /// "true" or "false", "1" or "0".
   virtual bool Get(const std::string& path, bool& value) const = 0;

   /// Sets a key, creating it and its parents as needed.
   virtual void Set(const std::string& path, const std::string& value) = 0;

   /// Appends an empty element below `path`, which is created as needed; returns its index among
   /// the elements of that name.
   virtual int AddElement(const std::string& path, const std::string& name) = 0;

   /// The children called `name` of `path`, in file order, as "name[0]", "name[1]", ...
   /// False when `path` is absent or has no such child.
   virtual bool GetChildren(const std::string& path, const std::string& name,
                            std::vector<std::string>& elements) const = 0;

   /// All keys in file order, without containers (elements that have child elements).
   virtual std::vector<Key> GetKeys() const = 0;

   /// "FILE:LINE" of a key, "FILE" if the line is unknown.
   virtual std::string Where(const std::string& path) const = 0;

protected:
   ~XmlConfig() override;
};

/// Reads nothing: the tree is empty until Read.
void GetXmlConfig(const std::string& fileName, Ref<XmlConfig>& config);

} // namespace Corvax
