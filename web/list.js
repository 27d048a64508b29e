// A long list of which only what is in view, and a little around it, exists as elements.
//
// Heights are measured as rows are drawn; until then a row counts as high as estimated. The row
// that has the focus stays, wherever it is.
const AROUND = 400; // px above and below the view

export class LongList {
    // `draw(item)` makes the element of an item {key, height}, height being the estimate.
    constructor(scroller, draw) {
        this.scroller = scroller;
        this.draw = draw;
        this.field = scroller.querySelector(".list-field");
        this.items = [];
        this.heights = new Map(); // key -> measured
        this.drawn = new Map(); // key -> element
        scroller.addEventListener("scroll", () => this.schedule(), {passive: true});
        this.field.addEventListener("focusout", () => this.schedule());
        new ResizeObserver(() => this.onResize()).observe(scroller);
    }

    // Shows these items. Elements of items that stay are kept.
    setItems(items, fromTop = true) {
        this.items = items;
        this.places = new Map(items.map((item, place) => [item.key, place]));
        if (fromTop) {
            this.scroller.scrollTop = 0;
        }
        this.layOut();
        this.render();
    }

    clear() {
        this.field.replaceChildren();
        this.drawn.clear();
        this.heights.clear();
    }

    element(key) {
        return this.drawn.get(key);
    }

    // Rows may have become higher or lower.
    remeasure(keys) {
        if (keys.some((key) => this.drawn.has(key))) {
            this.schedule();
        }
    }

    // Brings the item into view and returns its element.
    reveal(key) {
        const place = this.places.get(key);
        if (place === undefined) {
            return undefined;
        }
        const top = this.tops[place];
        const view = this.scroller.clientHeight;
        if (top < this.scroller.scrollTop || top + 60 > this.scroller.scrollTop + view) {
            this.scroller.scrollTop = Math.max(0, top - view / 3);
        }
        this.render();
        return this.drawn.get(key);
    }

    onResize() {
        if (this.width !== this.scroller.clientWidth) {
            this.width = this.scroller.clientWidth;
            this.heights.clear();
            this.layOut();
        }
        this.schedule();
    }

    schedule() {
        if (!this.scheduled) {
            this.scheduled = requestAnimationFrame(() => this.render());
        }
    }

    layOut() {
        this.tops = new Float64Array(this.items.length + 1);
        this.items.forEach((item, place) => {
            this.tops[place + 1] = this.tops[place] + (this.heights.get(item.key) ?? item.height);
        });
        this.field.style.height = `${this.tops[this.items.length]}px`;
    }

    // The place of the item at this height.
    placeAt(y) {
        let low = 0;
        let high = this.items.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (this.tops[middle + 1] <= y) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    render() {
        cancelAnimationFrame(this.scheduled);
        this.scheduled = 0;
        // What is drawn may turn out higher or lower than estimated, which shifts what is in view.
        for (let round = 0; round < 4; round += 1) {
            this.drawView();
            if (!this.measure()) {
                break;
            }
        }
        for (const [key, element] of this.drawn) {
            element.style.transform = `translateY(${this.tops[this.places.get(key)]}px)`;
        }
    }

    drawView() {
        const top = this.scroller.scrollTop - this.field.offsetTop;
        const first = this.placeAt(Math.max(0, top - AROUND));
        const last = this.placeAt(top + this.scroller.clientHeight + AROUND);
        const wanted = new Set(this.items.slice(first, last + 1).map((item) => item.key));
        for (const [key, element] of this.drawn) {
            const pinned = this.places.has(key) && element.contains(document.activeElement);
            if (!wanted.has(key) && !pinned) {
                element.remove();
                this.drawn.delete(key);
            }
        }
        this.insert([...wanted].filter((key) => !this.drawn.has(key)));
    }

    // Elements stand in the order of the list, so that the Tab key goes down it.
    insert(keys) {
        for (const key of keys) {
            const place = this.places.get(key);
            const element = this.draw(this.items[place]);
            const next = [...this.field.children].find(
                (each) => this.places.get(each.dataset.key) > place,
            );
            element.dataset.key = key;
            this.drawn.set(key, element);
            this.field.insertBefore(element, next ?? null);
        }
    }

    // True when a height has changed.
    measure() {
        let moved = false;
        for (const [key, element] of this.drawn) {
            const height = element.offsetHeight;
            if (this.heights.get(key) !== height) {
                moved =
                    moved ||
                    height !== this.items[this.places.get(key)].height ||
                    this.heights.has(key);
                this.heights.set(key, height);
            }
        }
        if (moved) {
            this.layOut();
        }
        return moved;
    }
}
