#pragma once
// CList: a singly linked list of pointers with a count and a cursor. It owns its cells, never its items.
// The audio thread walks lists but never changes them; changes happen on the audio thread between
// walks (deferred actions) or while it is stopped. moveItem relinks a cell without allocating, which is
// how undo steps move objects in and out of lists the cycle reads.

#include <cstdint>
#include <iterator>

class CList {
public:
    struct Cell {
        void* item;
        Cell* next;
    };

    CList() = default;
    CList(const CList&) = delete;
    CList& operator=(const CList&) = delete;
    virtual ~CList();

    void add(void* item);
    void addUnique(void* item);
    void insert(int32_t index, void* item);
    void* getAt(int32_t index) const;
    int32_t indexOf(const void* item) const;
    void remove(const void* item);
    void removeAt(int32_t index);
    void* first();
    void clear();
    // Moves item's cell from source to destination at index (-1: behind the last cell).
    // False when both lists share a head (two empty lists included) or source lacks the item.
    static bool moveItem(CList& destination, CList& source, void* item, int32_t index);

    int32_t count() const { return count_; }
    bool empty() const { return count_ == 0; }
    Cell* head() const { return head_; }
    Cell* cursor() const { return cursor_; }

private:
    int32_t count_ = 0;
    Cell* head_ = nullptr;
    // The last cell, so that appending, which lists of thousands of sounds do one by one, doesn't walk
    // the whole list each time.
    Cell* tail_ = nullptr;
    Cell* cursor_ = nullptr;
};

// A typed view of CList for walking and adding without casts. Iteration ends at the first
// missing cell or null item, as every walk of the program does.
template <class T>
class TList : public CList {
public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T*;
        using difference_type = std::ptrdiff_t;
        using pointer = T**;
        using reference = T*;
        explicit iterator(Cell* cell) : cell_(cell && cell->item ? cell : nullptr) {}
        T* operator*() const { return static_cast<T*>(cell_->item); }
        iterator& operator++() {
            cell_ = cell_->next && cell_->next->item ? cell_->next : nullptr;
            return *this;
        }
        iterator operator++(int) {
            iterator old = *this;
            ++*this;
            return old;
        }
        friend bool operator==(const iterator& a, const iterator& b) { return a.cell_ == b.cell_; }

    private:
        Cell* cell_;
    };

    void add(T* item) { CList::add(item); }
    void addUnique(T* item) { CList::addUnique(item); }
    void insert(int32_t index, T* item) { CList::insert(index, item); }
    T* getAt(int32_t index) const { return static_cast<T*>(CList::getAt(index)); }
    T* first() { return static_cast<T*>(CList::first()); }
    iterator begin() const { return iterator(head()); }
    iterator end() const { return iterator(nullptr); }

    // Deletes every item the way an owner does: take index 0, unlink its cell, destroy it.
    void deleteAll() {
        while (count() > 0) {
            T* item = getAt(0);
            removeAt(0);
            delete item;
        }
    }
};
