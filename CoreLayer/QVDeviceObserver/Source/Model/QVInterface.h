// QVInterface: one interface of a device with the set of capabilities the application may use
// through it. The base of the serial port (QVSerialInterface) and the network interface
// (QVEthernetInterface); owned by its device's interface list, used on the framework's thread.
//
// Equality is by exact class and capabilities; there is no matching hash, so interfaces live in
// ordered lists only.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Foundation/KeyedArchiver.h"
#include "Foundation/KeyedUnarchiver.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "Model/QVCapabilitySet.h"

class QVInterface : public qv::Object, public qv::Coding {
  public:
    // initWithCapabilities:
    explicit QVInterface(QVCapabilitySet capabilities);

    const QVCapabilitySet& capabilities() const { return _capabilities; }
    bool hasCapability(std::string_view capability) const;
    // Adds the members of `capabilities`; marks the interface changed only when the set grew.
    void addCapabilities(const QVCapabilitySet& capabilities);
    // A copy of `set` with `object` added; the subclasses add their type marker with it.
    static QVCapabilitySet setByAddingObject(const std::string& object, QVCapabilitySet set);

    // The capabilities joined by ", ".
    virtual std::string name() const;
    std::string description() const override;
    bool isEqual(const qv::Object& other) const override;

    bool isChanged() const { return _changed; }
    void setChanged(bool changed) { _changed = changed; }

    virtual std::string className() const { return "QVInterface"; }

    // Dictionary form: "class", "_capabilities" ({"capability-00": ..., ...}) and the subclass's
    // own key. loadDictionary reads any value of "_capabilities" as a capability and nothing else.
    virtual qv::Value toDictionary() const;
    static std::shared_ptr<QVInterface> loadDictionary(const qv::Value& dictionary);

    // Archive form: "_capabilities" as a set, and the subclass's own key.
    std::string classNameForArchive() const override { return className(); }
    void encodeWithCoder(qv::KeyedArchiver& coder) const override;
    static std::shared_ptr<QVInterface> initWithCoder(qv::KeyedUnarchiver& coder);

  protected:
    // The empty interface that loadDictionary and initWithCoder fill.
    QVInterface() = default;
    virtual void readDictionary(const qv::Value& dictionary);
    virtual void decodeWithCoder(qv::KeyedUnarchiver& coder);
    bool hasSameClassAndCapabilities(const qv::Object& other) const;

    // What loadDictionary and initWithCoder do after making the empty object; both leave the
    // interface unchanged. fillFromCoder answers NO when the archive was not usable.
    void fillFromDictionary(const qv::Value& dictionary);
    bool fillFromCoder(qv::KeyedUnarchiver& coder);

  private:
    QVCapabilitySet _capabilities;
    bool _changed = false;
};
