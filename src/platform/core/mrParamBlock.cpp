#include <cstring>

#include <meridbsp/platform/core/mrParamBlock.h>

const unsigned char* mrParamBlock::Field::bytes() const
{
    if (m_kind == FIELD_BYTEARRAYPTR)
        return m_ptr;
    return m_bytes.empty() ? nullptr : m_bytes.data();
}

unsigned long mrParamBlock::Field::byteCount() const
{
    if (m_kind == FIELD_BYTEARRAYPTR)
        return m_size;
    return (unsigned long)m_bytes.size();
}

// Copies take the fields and flags, not the dependants.
mrParamBlock::mrParamBlock(const mrParamBlock& o) : mrRefTarget(o), m_flags(o.m_flags), m_fields(o.m_fields) {}

mrParamBlock& mrParamBlock::operator=(const mrParamBlock& o)
{
    if (this != &o)
    {
        mrRefTarget::operator=(o);
        m_fields = o.m_fields;
        m_flags = o.m_flags;
    }
    return *this;
}

mrParamBlock::Field* mrParamBlock::declare(unsigned long id, e_fieldKind kind, e_accessType access, const char* name)
{
    Field* f = findField(id);
    if (!f)
    {
        m_fields.emplace_back();
        f = &m_fields.back();
        f->m_id = id;
    }
    f->m_kind = kind;
    f->m_access = access;
    f->m_name = name ? name : "";
    return f;
}

void mrParamBlock::addDWordField(unsigned long id, e_accessType access, const char* name)
{
    declare(id, FIELD_DWORD, access, name);
}

void mrParamBlock::addVector3Field(unsigned long id, e_accessType access, const char* name)
{
    declare(id, FIELD_VECTOR3, access, name);
}

void mrParamBlock::addByteArrayField(unsigned long id, e_accessType access, const char* name)
{
    declare(id, FIELD_BYTEARRAY, access, name);
}

void mrParamBlock::addByteArrayPtrField(unsigned long id, e_accessType access, const char* name)
{
    declare(id, FIELD_BYTEARRAYPTR, access, name);
}

void mrParamBlock::setDWordField(unsigned long id, unsigned long value)
{
    Field* f = findField(id);
    if (!f || f->m_kind != FIELD_DWORD)
        return;
    f->m_dword = (uint32_t)value;
    notifyDependants(REFMSG_CHANGE, id);
}

void mrParamBlock::setVector3Field(unsigned long id, const srVector3T<float>& value)
{
    Field* f = findField(id);
    if (!f || f->m_kind != FIELD_VECTOR3)
        return;
    f->m_vector = value;
    notifyDependants(REFMSG_CHANGE, id);
}

void mrParamBlock::setByteArrayField(unsigned long id, const unsigned char* bytes, unsigned long size)
{
    Field* f = findField(id);
    if (!f || f->m_kind != FIELD_BYTEARRAY)
        return;
    if (bytes && size)
        f->m_bytes.assign(bytes, bytes + size);
    else
        f->m_bytes.clear();
    notifyDependants(REFMSG_CHANGE, id);
}

void mrParamBlock::setByteArrayPtrField(unsigned long id, unsigned char* address, unsigned long size)
{
    Field* f = findField(id);
    if (!f || f->m_kind != FIELD_BYTEARRAYPTR)
        return;
    f->m_ptr = address;
    f->m_size = size;
    notifyDependants(REFMSG_CHANGE, id);
}

unsigned long mrParamBlock::getDWordField(unsigned long id)
{
    Field* f = findField(id);
    return f && f->m_kind == FIELD_DWORD ? f->m_dword : 0;
}

srVector3T<float> mrParamBlock::getVector3Field(unsigned long id)
{
    Field* f = findField(id);
    return f && f->m_kind == FIELD_VECTOR3 ? f->m_vector : srVector3T<float>();
}

unsigned char* mrParamBlock::getByteArrayField(unsigned long id, unsigned long& size)
{
    Field* f = findField(id);
    if (!f || (f->m_kind != FIELD_BYTEARRAY && f->m_kind != FIELD_BYTEARRAYPTR))
    {
        size = 0;
        return nullptr;
    }
    size = f->byteCount();
    return const_cast<unsigned char*>(f->bytes());
}

unsigned char* mrParamBlock::getByteArrayPtrField(unsigned long id, unsigned long& size)
{
    return getByteArrayField(id, size);
}

mrParamBlock::Field* mrParamBlock::findField(unsigned long id)
{
    for (Field& f : m_fields)
        if (f.m_id == id)
            return &f;
    return nullptr;
}

const mrParamBlock::Field* mrParamBlock::findField(unsigned long id) const
{
    for (const Field& f : m_fields)
        if (f.m_id == id)
            return &f;
    return nullptr;
}

mrParamBlock::Field* mrParamBlock::findField(const char* name)
{
    for (Field& f : m_fields)
        if (name && f.m_name == name)
            return &f;
    return nullptr;
}

mrParamBlock::Field& mrParamBlock::appendField(const Field& f)
{
    m_fields.push_back(f);
    return m_fields.back();
}
