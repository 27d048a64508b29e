// The frame of the page: header, groups, toolbar, list and the bar of unsaved changes, as elements.
//
// What they do is in `actions`: search(query), filter(name), groups(open), undoAll(), apply(),
// leave(), exported(), imported(), review(), reset(), password(), accounts().
import {h, icon, iconButton} from "./dom.js";
import {t} from "./i18n.js";
import {FILTERS} from "./search.js";

// A button that opens a few others. Closes by a choice, by Esc, and when the focus goes elsewhere.
function menu(button, items) {
    const list = h("div", {class: "menu-list", hidden: true}, items);
    const element = h("div", {class: "menu"}, button, list);
    const open = (yes) => {
        list.hidden = !yes;
        button.setAttribute("aria-expanded", String(yes));
    };
    open(false);
    button.addEventListener("click", () => open(list.hidden));
    list.addEventListener("click", () => open(false));
    element.addEventListener(
        "focusout",
        (event) => element.contains(event.relatedTarget) || open(false),
    );
    element.addEventListener("keydown", (event) => {
        if (event.key === "Escape" && !list.hidden) {
            open(false);
            button.focus();
        }
    });
    return element;
}

const menuItem = (label, onclick) => h("button", {type: "button", onclick}, label);

function createHeader({name, role}, actions) {
    const search = h("input", {
        type: "search",
        id: "search",
        placeholder: t("search.words"),
        "aria-label": t("search.label"),
        autocomplete: "off",
        spellcheck: "false",
        "aria-keyshortcuts": "/",
        oninput: () => actions.search(search.value),
    });
    const state = h("span", {class: "state", role: "status"});
    const groups = iconButton(
        "menu",
        t("tree.label"),
        () => actions.groups(groups.getAttribute("aria-expanded") !== "true"),
        {class: "icon-button groups-button", "aria-expanded": "false"},
    );
    const who = h(
        "button",
        {type: "button", class: "quiet", "aria-label": t("account.menu", {name})},
        icon("account"),
        h("span", {class: "who"}, name),
    );
    const items = [
        h("div", {class: "menu-note"}, t(`role.${role}`)),
        menuItem(t("account.password"), actions.password),
        role === "administrator" && menuItem(t("accounts.title"), actions.accounts),
        menuItem(t("account.log_out"), actions.leave),
    ].filter(Boolean);
    return {
        search,
        state,
        groups,
        element: h(
            "header",
            {class: "top"},
            groups,
            h(
                "a",
                {class: "brand", href: "#settings/", "aria-label": "kelconf"},
                h("img", {src: "icon.svg", alt: "", width: 26, height: 26}),
                h("span", {}, "kelconf"),
            ),
            h("div", {class: "search"}, icon("search"), search),
            state,
            menu(who, items),
        ),
    };
}

function createToolbar({role}, actions) {
    const title = h("h1", {tabindex: -1});
    const count = h("span", {class: "count", role: "status"});
    const filters = Object.keys(FILTERS).map((name) =>
        h(
            "label",
            {},
            h("input", {
                type: "radio",
                name: "filter",
                value: name,
                onchange: () => actions.filter(name),
            }),
            h("span", {}, t(`filter.${name}`)),
        ),
    );
    const more = iconButton("more", t("more"), () => {});
    const all =
        role === "administrator" &&
        menu(more, [
            menuItem(t("export.menu"), actions.exported),
            menuItem(t("import.menu"), actions.imported),
            menuItem(t("reset.menu"), actions.reset),
        ]);
    return {
        title,
        count,
        filters,
        element: h(
            "div",
            {class: "toolbar"},
            h("div", {class: "toolbar-title"}, title, count),
            h(
                "div",
                {class: "segments filters", role: "radiogroup", "aria-label": t("filter.label")},
                filters,
            ),
            all,
        ),
    };
}

function createApplyBar(actions) {
    const words = h("span", {class: "apply-words", role: "status"});
    const look = h(
        "button",
        {type: "button", class: "quiet", onclick: () => actions.review()},
        t("apply.review"),
    );
    const undo = h("button", {type: "button", onclick: actions.undoAll}, t("apply.undo"));
    const act = h("button", {
        type: "button",
        class: "primary",
        onclick: actions.apply,
        "aria-keyshortcuts": "Control+S",
    });
    return {
        words,
        act,
        element: h(
            "section",
            {class: "apply", "aria-label": t("apply.label"), hidden: true},
            words,
            look,
            undo,
            act,
        ),
    };
}

// All elements that change. `list` and `tree` are still to be filled by who asks.
export function createFrame(account, actions) {
    const header = createHeader(account, actions);
    const toolbar = createToolbar(account, actions);
    const bar = createApplyBar(actions);
    const treeElement = h("ul", {role: "tree", "aria-label": t("tree.label")});
    const banner = h("div", {class: "banner", role: "alert", hidden: true});
    const empty = h("p", {class: "empty", hidden: true});
    const scroller = h(
        "div",
        {class: "list", tabindex: 0, role: "region", "aria-label": t("list.label")},
        h("div", {class: "list-field"}),
        empty,
    );
    const settings = h("div", {class: "settings"}, toolbar.element, scroller);
    const accounts = h("div", {class: "accounts-place", hidden: true});
    const foot = h("p", {class: "tree-foot"});
    const shell = h(
        "div",
        {class: "shell"},
        header.element,
        h(
            "nav",
            {class: "groups", "aria-label": t("tree.label")},
            h("h1", {}, t("tree.label")),
            treeElement,
            foot,
        ),
        h("main", {}, banner, settings, accounts, bar.element),
    );
    document.getElementById("app").replaceChildren(shell);
    return {
        ...header,
        toolbar,
        bar,
        banner,
        empty,
        settings,
        accounts,
        shell,
        foot,
        treeElement,
        scroller,
    };
}
