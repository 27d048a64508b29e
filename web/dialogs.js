// Questions in front of the page, and the few words at its edge.
import * as api from "./api.js";
import {h, icon, iconButton} from "./dom.js";
import {t, titlesOf} from "./i18n.js";

const MOST_SHOWN = 200; // changes of a preview
const TOAST = 5000; // ms

// Why a call failed, for people.
export function reasonOf(error) {
    const known = ["unreachable", "unavailable", "too_many", "too_large", "forbidden"];
    if (error.code === "slow_down") {
        return t("error.slow_down", {n: error.retry || 1});
    }
    return known.includes(error.code)
        ? t(`error.${error.code}`)
        : error.message || t("error.unknown");
}

export function toast(text, kind = "") {
    const element = h("div", {class: `toast ${kind}`}, h("span", {}, text));
    const close = () => element.remove();
    element.append(iconButton("close", t("close"), close));
    document.getElementById("toasts").append(element);
    setTimeout(close, TOAST);
}

export const problemBox = () => h("p", {class: "problem-box", role: "alert", hidden: true});

export function say(box, text) {
    box.replaceChildren(icon("alert"), h("span", {}, text));
    box.hidden = text === "";
}

// A labelled field of a form.
export function field(label, attributes, hint) {
    const input = h("input", {type: "text", required: true, autocomplete: "off", ...attributes});
    const element = h(
        "label",
        {class: "field"},
        h("span", {}, label),
        input,
        hint && h("small", {}, hint),
    );
    return Object.assign(element, {input});
}

// A form in a dialog. `submit(dialog)` may throw an ApiError, which is then shown; otherwise the
// dialog closes. Nothing but the dialog can be reached while it is open.
export function formDialog({title, content, action, danger, submit}) {
    const problem = problemBox();
    const act = h("button", {type: "submit", class: danger ? "danger" : "primary"}, action);
    const dialog = h(
        "dialog",
        {"aria-labelledby": "dialog-title"},
        h(
            "form",
            {
                method: "dialog",
                onsubmit: async (event) => {
                    event.preventDefault();
                    act.disabled = true;
                    try {
                        await submit(dialog);
                        dialog.close();
                    } catch (error) {
                        say(problem, reasonOf(error));
                    } finally {
                        act.disabled = false;
                    }
                },
            },
            h(
                "header",
                {},
                h("h2", {id: "dialog-title"}, title),
                iconButton("close", t("close"), () => dialog.close()),
            ),
            h("div", {class: "dialog-body"}, content, problem),
            h(
                "footer",
                {},
                h("button", {type: "button", onclick: () => dialog.close()}, t("cancel")),
                act,
            ),
        ),
    );
    dialog.addEventListener("close", () => dialog.remove());
    document.body.append(dialog);
    dialog.showModal();
    return Object.assign(dialog, {act, problem});
}

// --- the device's settings as a whole

const shown = (value) =>
    value === null ? t("secret.hidden") : value === "" ? t("value.empty") : value;

function changeTable(changes) {
    const rows = changes
        .slice(0, MOST_SHOWN)
        .map(({name, from, to}) =>
            h(
                "tr",
                {},
                h("th", {scope: "row"}, h("code", {}, name)),
                h("td", {}, shown(from)),
                h("td", {}, shown(to)),
            ),
        );
    const head = ["name", "from", "to"].map((column) =>
        h("th", {scope: "col"}, t(`preview.${column}`)),
    );
    const more = changes.length - MOST_SHOWN;
    return h(
        "div",
        {class: "table-scroll", tabindex: 0, role: "region", "aria-label": t("preview.title")},
        h("table", {}, h("thead", {}, h("tr", {}, head)), h("tbody", {}, rows)),
        more > 0 && h("p", {}, t("preview.more", {n: more})),
    );
}

// Everything, or the group that is shown.
function scopeChoice(group, onchange) {
    const option = (value, label, checked) =>
        h(
            "label",
            {class: "radio"},
            h("input", {
                type: "radio",
                name: "scope",
                value,
                checked,
                onchange: () => onchange(value),
            }),
            label,
        );
    return h(
        "fieldset",
        {},
        h("legend", {}, t("scope.title")),
        group && option(`${group}.`, titlesOf(group).join(" › "), true),
        option("", t("scope.all"), !group),
    );
}

export function exportDialog(group) {
    let prefix = group ? `${group}.` : "";
    const changedOnly = h("input", {type: "checkbox"});
    formDialog({
        title: t("export.title"),
        content: [
            h("p", {}, t("export.words")),
            scopeChoice(group, (value) => (prefix = value)),
            h("label", {class: "radio"}, changedOnly, t("export.changed")),
        ],
        action: t("export.action"),
        async submit() {
            const url = URL.createObjectURL(await api.exported(prefix, changedOnly.checked));
            const day = new Date().toISOString().slice(0, 10);
            h("a", {href: url, download: `settings-${location.hostname}-${day}.txt`}).click();
            setTimeout(() => URL.revokeObjectURL(url), 60000);
        },
    });
}

export function importDialog() {
    const preview = h("div", {class: "preview", "aria-live": "polite"});
    const file = h("input", {
        type: "file",
        id: "import-file",
        required: true,
        accept: ".txt,text/plain",
    });
    let text = "";
    const dialog = formDialog({
        title: t("import.title"),
        content: [h("label", {class: "field"}, h("span", {}, t("import.file")), file), preview],
        action: t("import.action"),
        async submit() {
            const {changes} = await api.imported(text, false);
            toast(t("import.done", {n: changes.length}));
        },
    });
    dialog.act.disabled = true;
    file.addEventListener("change", async () => {
        dialog.act.disabled = true;
        preview.replaceChildren();
        say(dialog.problem, "");
        try {
            text = await file.files[0].text();
            const {changes, refused} = await api.imported(text, true);
            preview.replaceChildren(...importPreview(changes, refused));
            dialog.act.disabled = refused.length > 0 || changes.length === 0;
        } catch (error) {
            say(dialog.problem, reasonOf(error));
        }
    });
}

function importPreview(changes, refused) {
    if (refused.length > 0) {
        const lines = refused.slice(0, MOST_SHOWN);
        return [
            h("p", {class: "refused-title"}, t("import.refused", {n: refused.length})),
            h(
                "ul",
                {class: "refused"},
                lines.map(({name, message}) => h("li", {}, h("code", {}, name), ` ${message}`)),
            ),
        ];
    }
    const words = changes.length ? t("import.changes", {n: changes.length}) : t("import.nothing");
    return [h("p", {}, words), changes.length > 0 && changeTable(changes)].filter(Boolean);
}

export function resetDialog(group) {
    let prefix = group ? `${group}.` : "";
    const preview = h("div", {class: "preview", "aria-live": "polite"});
    const sure = h("input", {type: "checkbox", required: true});
    const look = async () => {
        dialog.act.disabled = true;
        sure.checked = false;
        try {
            const {changes} = await api.reset([prefix], true);
            const words = changes.length
                ? t("reset.changes", {n: changes.length})
                : t("reset.nothing");
            preview.replaceChildren(
                h("p", {}, words),
                ...(changes.length ? [changeTable(changes)] : []),
            );
            dialog.act.disabled = changes.length === 0;
        } catch (error) {
            say(dialog.problem, reasonOf(error));
        }
    };
    const dialog = formDialog({
        title: t("reset.title"),
        content: [
            scopeChoice(group, (value) => {
                prefix = value;
                look();
            }),
            preview,
            h("label", {class: "radio"}, sure, t("reset.sure")),
        ],
        action: t("reset.action"),
        danger: true,
        async submit() {
            const {changes} = await api.reset([prefix]);
            toast(t("reset.done", {n: changes.length}));
        },
    });
    look();
}

export function passwordDialog() {
    const old = field(t("password.old"), {type: "password", autocomplete: "current-password"});
    const fresh = field(t("password.new"), {type: "password", autocomplete: "new-password"});
    const again = field(t("password.again"), {type: "password", autocomplete: "new-password"});
    formDialog({
        title: t("password.title"),
        content: [old, fresh, again],
        action: t("password.action"),
        async submit() {
            if (fresh.input.value !== again.input.value) {
                throw new Error(t("password.differ"));
            }
            await api.changePassword(old.input.value, fresh.input.value);
            toast(t("password.done"));
        },
    });
}
