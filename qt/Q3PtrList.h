#ifndef LUMORA_QT_Q3PTRLIST_H
#define LUMORA_QT_Q3PTRLIST_H

#include <QtGlobal>

#if QT_VERSION < 0x050000

#include <Q3PtrList>

// Qt 4's list calls the destructor of its entries' type, even if it never deletes one. Use this at
// global scope for a type whose destructor is protected.
#define LUMORA_LIST_DELETES_NO(type)                                                               \
    template <>                                                                                    \
    inline void Q3PtrList<type>::deleteItem(Q3PtrCollection::Item)                                 \
    {}

#else

#include <QList>

#define LUMORA_LIST_DELETES_NO(type)

/// A part of Qt3Support's Q3PtrList, with the same meaning: a list of pointers with a current
/// position, which searching, appending and stepping move. It never deletes an entry.
template <class type>
class Q3PtrList
{
public:
    Q3PtrList() = default;

    Q3PtrList(const Q3PtrList&) = delete;
    Q3PtrList& operator=(const Q3PtrList&) = delete;

    uint count() const { return static_cast<uint>(items.size()); }
    bool isEmpty() const { return items.isEmpty(); }

    void append(const type* item)
    {
        items.append(const_cast<type*>(item));
        position = static_cast<int>(items.size()) - 1;
    }

    /// Makes entry `index` current and returns it; null, with the position unchanged, if there is
    /// no such entry.
    type* at(uint index)
    {
        if (index >= count())
            return nullptr;
        position = static_cast<int>(index);
        return current();
    }
    int at() const { return position; }

    type* current() const { return position < 0 ? nullptr : items.at(position); }
    type* first() { return at(0); }

    /// Makes the next entry current and returns it; null, and no current entry, past the last one.
    type* next()
    {
        if (position >= 0)
            position = position + 1 < static_cast<int>(items.size()) ? position + 1 : -1;
        return current();
    }

    /// The index of the first entry with this address, which becomes current; -1 if there is none.
    int findRef(const type* item)
    {
        position = static_cast<int>(items.indexOf(const_cast<type*>(item)));
        return position;
    }

private:
    QList<type*> items;
    int position = -1;
};

#endif

#endif
