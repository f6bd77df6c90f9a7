#include "core/list.h"

#include <utility>

CList::~CList() { clear(); }

void CList::add(void* item) { insert(count_, item); }

void CList::addUnique(void* item) {
    if (indexOf(item) < 0) add(item);
}

void CList::insert(int32_t index, void* item) {
    Cell* cell = new Cell{item, nullptr};
    if (index <= 0 || !head_) {
        cell->next = head_;
        head_ = cell;
        if (!tail_) tail_ = cell;
    } else if (index >= count_) {
        tail_->next = cell;
        tail_ = cell;
    } else {
        Cell* before = head_;
        for (int32_t i = 1; i < index && before->next; ++i) before = before->next;
        cell->next = before->next;
        before->next = cell;
    }
    ++count_;
}

void* CList::getAt(int32_t index) const {
    if (index < 0 || index >= count_) return nullptr;
    Cell* cell = head_;
    for (int32_t i = 0; i < index && cell; ++i) cell = cell->next;
    return cell ? cell->item : nullptr;
}

int32_t CList::indexOf(const void* item) const {
    int32_t index = 0;
    for (Cell* cell = head_; cell; cell = cell->next, ++index) {
        if (cell->item == item) return index;
    }
    return -1;
}

void CList::remove(const void* item) { removeAt(indexOf(item)); }

void CList::removeAt(int32_t index) {
    if (index < 0 || index >= count_) return;
    Cell* before = nullptr;
    Cell* cell = head_;
    for (int32_t i = 0; i < index; ++i) {
        before = cell;
        cell = cell->next;
    }
    (before ? before->next : head_) = cell->next;
    if (tail_ == cell) tail_ = before;
    if (cursor_ == cell) cursor_ = nullptr;
    delete cell;
    --count_;
}

void* CList::first() {
    cursor_ = head_;
    return count_ >= 1 && head_ ? head_->item : nullptr;
}

void CList::clear() {
    while (head_) delete std::exchange(head_, head_->next);
    tail_ = nullptr;
    count_ = 0;
    cursor_ = nullptr;
}

bool CList::moveItem(CList& destination, CList& source, void* item, int32_t index) {
    if (destination.head_ == source.head_) return false;

    // The insertion point is found before the item leaves source; the lists are distinct, so
    // unlinking from source cannot disturb it.
    Cell* before = nullptr;
    Cell* at = destination.head_;
    for (int32_t position = 0; at && position != index; ++position) {
        before = at;
        at = at->next;
    }

    Cell* previous = nullptr;
    Cell* cell = source.head_;
    while (cell && cell->item != item) {
        previous = cell;
        cell = cell->next;
    }
    if (!cell) return false;

    (previous ? previous->next : source.head_) = cell->next;
    if (source.tail_ == cell) source.tail_ = previous;
    if (source.cursor_ == cell) source.cursor_ = nullptr;
    --source.count_;

    Cell*& link = before ? before->next : destination.head_;
    cell->next = link;
    link = cell;
    if (!cell->next) destination.tail_ = cell;
    ++destination.count_;
    return true;
}
