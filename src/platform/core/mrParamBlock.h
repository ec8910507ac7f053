#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <meridbsp/platform/core/mrRefTarget.h>
#include <meridbsp/platform/dx/srVector3T.h>

class mrChunkIFStream;
class mrChunkOFStream;

// A set of typed, named fields addressed by field ID (or name). Setting a field
// notifies the block's dependants with message 0 and the field ID as part ID.
class mrParamBlock : public mrRefTarget
{
public:
    enum e_accessType
    {
        ACCESS_NONE = 0,
        ACCESS_READWRITE = 1,
    };

    // Stored kinds. A byte-array pointer field holds an address and a size (the bytes
    // stay their owner's); a byte-array field owns a copy of its bytes. Both are
    // written to files as a byte array and read back as an owned byte array.
    enum e_fieldKind
    {
        FIELD_DWORD = 1,
        FIELD_VECTOR3 = 2,
        FIELD_BYTEARRAY = 3,
        FIELD_BYTEARRAYPTR = 4,
    };

    struct Field
    {
        unsigned long m_id = 0;
        e_fieldKind m_kind = FIELD_DWORD;
        e_accessType m_access = ACCESS_READWRITE;
        std::string m_name;
        uint32_t m_dword = 0;
        srVector3T<float> m_vector;
        std::vector<unsigned char> m_bytes;
        unsigned char* m_ptr = nullptr;
        unsigned long m_size = 0;

        // The bytes the field stands for, whichever way it holds them.
        const unsigned char* bytes() const;
        unsigned long byteCount() const;
    };

    mrParamBlock() = default;
    mrParamBlock(const mrParamBlock& o);
    mrParamBlock& operator=(const mrParamBlock& o);
    ~mrParamBlock() override = default;

    // Field declarations. Declaring an ID that exists replaces its kind, access and name.
    void addDWordField(unsigned long id, e_accessType access, const char* name);
    void addVector3Field(unsigned long id, e_accessType access, const char* name);
    void addByteArrayField(unsigned long id, e_accessType access, const char* name);
    void addByteArrayPtrField(unsigned long id, e_accessType access, const char* name);

    // Setters change a declared field of that kind and notify the dependants; a setter
    // for an undeclared ID or another kind does nothing.
    void setDWordField(unsigned long id, unsigned long value);
    void setVector3Field(unsigned long id, const srVector3T<float>& value);
    void setByteArrayField(unsigned long id, const unsigned char* bytes, unsigned long size);
    void setByteArrayPtrField(unsigned long id, unsigned char* address, unsigned long size);

    // Getters give 0, the zero vector or null (size 0) for a missing field.
    unsigned long getDWordField(unsigned long id);
    srVector3T<float> getVector3Field(unsigned long id);
    // The bytes of a byte-array or byte-array pointer field and their count.
    unsigned char* getByteArrayField(unsigned long id, unsigned long& size);
    unsigned char* getByteArrayPtrField(unsigned long id, unsigned long& size);

    Field* findField(unsigned long id);
    const Field* findField(unsigned long id) const;
    Field* findField(const char* name);
    size_t numFields() const { return m_fields.size(); }
    const Field& fieldAt(size_t i) const { return m_fields[i]; }
    // Appends a field as read from a file (no notification).
    Field& appendField(const Field& f);
    void clearFields() { m_fields.clear(); }

    virtual void addClassParameters(mrParamBlock* block) { (void)block; }
    virtual void refreshInstance(mrParamBlock* block) { (void)block; }
    virtual void refreshPBlock(mrParamBlock* block) { (void)block; }
    virtual void resetPBlock() { m_fields.clear(); }

    // Writes / reads the fields (see docs/chunk-format.md). importData with append = 1
    // adds the fields read to this block. Both return 1 on success, 0 on failure
    // (the stream then holds the error).
    virtual int importData(mrChunkIFStream& stream, int append);
    virtual int exportData(mrChunkOFStream& stream);

    virtual float getMaxTime() { return 0.0f; }
    virtual void interpolate(float time) { (void)time; }

    // Bit 0: the owner is publishing its members into the block.
    uint32_t m_flags = 0;

private:
    Field* declare(unsigned long id, e_fieldKind kind, e_accessType access, const char* name);
    std::vector<Field> m_fields;
};
