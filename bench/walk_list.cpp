#include "walk_list.h"

namespace kelconf::bench {

namespace {

WalkElement* walk(WalkElement* from, std::int32_t steps) {
    for (; steps > 0; --steps) {
        from = from->next;
    }
    for (; steps < 0; ++steps) {
        from = from->prev;
    }
    return from;
}

} // namespace

WalkList::WalkList() {
    head_.next = &tail_;
    tail_.prev = &head_;
}

WalkList::~WalkList() {
    while (count_ > 0) {
        remove(0);
    }
    while (spare_count_ > 0) {
        delete spares_[--spare_count_];
    }
}

WalkElement* WalkList::at(std::int32_t position) {
    const float x = static_cast<float>(position + 1) / static_cast<float>(count_);
    if (x <= 0.25F) {
        return walk(&head_, position + 1);
    }
    if (x <= 0.75F) {
        return walk(middle_, position - (static_cast<std::int32_t>(count_) - 1) / 2);
    }
    return walk(&tail_, position - static_cast<std::int32_t>(count_));
}

void WalkList::insert(std::int32_t position, void* data) {
    WalkElement* added = spare_count_ > 0 ? spares_[--spare_count_] : new WalkElement;
    WalkElement* before = at(position - 1);
    *added = {data, before->next, before};
    before->next->prev = added;
    before->next = added;
    ++count_;
    const auto n = static_cast<std::int32_t>(count_);
    if (n == 1) {
        middle_ = added;
    } else if (n % 2 == 1) {
        middle_ = position >= (n - 1) / 2 ? middle_->next : middle_;
    } else {
        middle_ = position <= (n - 1) / 2 ? middle_->prev : middle_;
    }
}

void WalkList::remove(std::int32_t position) {
    WalkElement* removed = at(position);
    const auto n = static_cast<std::int32_t>(count_);
    if (n == 1) {
        middle_ = nullptr;
    } else if (n % 2 == 1) {
        middle_ = position >= n / 2 ? middle_->prev : middle_;
    } else {
        middle_ = position < n / 2 ? middle_->next : middle_;
    }
    removed->prev->next = removed->next;
    removed->next->prev = removed->prev;
    if (spare_count_ < spares_.size()) {
        spares_[spare_count_++] = removed;
    } else {
        delete removed;
    }
    --count_;
}

} // namespace kelconf::bench
