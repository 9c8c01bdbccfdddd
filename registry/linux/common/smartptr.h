// Counted ownership: the count lives in the object (ObjRef), holders move it (SmartPtr). Whoever releases the last
// reference destroys the object, on its own thread.
//
// Smart pointers to one object may be made and destroyed on different threads at once; one smart pointer belongs to one
// thread at a time, or to a lock.
#ifndef OBREG_COMMON_SMARTPTR_H
#define OBREG_COMMON_SMARTPTR_H

#include <cstdint>

#include "platform.h"

/// Base of an object that SmartPtr holds. The count is 0 after construction: until a smart pointer takes a reference,
/// the creator owns the object outright.
class ObjRef {
public:
    ObjRef() = default;

    void IncRefCount() { InterlockedIncrement(&m_Count); }

    /// Takes one off and returns true when none is left. A count that is 0 already stays so, and the result is false.
    bool DecRefCount() { return GetRefCount() != 0 && InterlockedDecrement(&m_Count) == 0; }

    uint32_t GetRefCount() const { return __atomic_load_n(&m_Count, __ATOMIC_ACQUIRE); }

private:
    uint32_t m_Count = 0;
};

/// Holds one counted reference to a T, which derives from ObjRef, or nothing.
template <class T>
class SmartPtr {
public:
    SmartPtr() = default;
    SmartPtr(T* ptr) { resetPtr(ptr); }
    SmartPtr(const SmartPtr<T>& ref) { resetPtr(ref.m_Ptr); }
    virtual ~SmartPtr() { deleteObject(); }

    SmartPtr<T>& operator=(T* ptr)
    {
        if (ptr != nullptr) {
            resetPtr(ptr);
        } else {
            deleteObject();
            m_Ptr = nullptr;
        }
        return *this;
    }
    SmartPtr<T>& operator=(const SmartPtr<T>& ref)
    {
        if (this != &ref)
            *this = ref.m_Ptr;
        return *this;
    }

    T* operator->() const { return m_Ptr; }
    T& operator*() const { return *m_Ptr; }
    operator T*() const { return m_Ptr; }
    operator bool() const { return m_Ptr != nullptr; }
    bool operator!() const { return m_Ptr == nullptr; }
    bool operator==(const SmartPtr<T>& other) const { return m_Ptr == other.m_Ptr; }
    bool operator!=(const SmartPtr<T>& other) const { return m_Ptr != other.m_Ptr; }
    bool operator==(const T* ptr) const { return m_Ptr == ptr; }
    bool operator!=(const T* ptr) const { return m_Ptr != ptr; }

private:
    /// Releases the reference; the last one destroys the object.
    void deleteObject()
    {
        if (m_Ptr != nullptr && m_Ptr->DecRefCount()) {
            delete m_Ptr;
            m_Ptr = nullptr;
        }
    }

    /// Takes over a reference to newPtr, if there is one, for the object held so far.
    void resetPtr(T* newPtr)
    {
        if (newPtr == nullptr)
            return;
        newPtr->IncRefCount(); // first: newPtr may be the object held so far
        deleteObject();
        m_Ptr = newPtr;
    }

    T* m_Ptr = nullptr;
};

#endif
