// The form of a request, made from the catalogue: one field for each parameter, checked while it
// is filled in. What is filled in lives in the entries; a form can be drawn from them anew.

import { announce, el, newId } from './dom.js';
import { applies, convertEntry, entryBytes, entryValue, fault, fieldKind, isEmpty, isRequired,
    takesRandom, takesUpload } from './entries.js';
import { warningText } from './host_texts.js';
import { byteCount, sentence, t } from './i18n.js';
import { openSessions } from './memory.js';
import { randomBytes, toHex } from './values.js';

const HOW_TEXTS = { text: 'Text', hex: 'Hex', base64: 'Base64', file: 'File' };
const RANDOM_SIZES = [12, 16, 24, 32];

// Radio buttons that look like one control. `options` are [value, text].
export function segments(label, options, chosen, onChoose) {
    const name = newId('segments');
    return el('div', { class: 'segments', role: 'radiogroup', 'aria-label': label },
        options.map(([value, text]) => {
            const id = newId('segment');
            return [
                el('input', { type: 'radio', name, id, value, class: 'visually-hidden',
                    checked: value === chosen, on: { change: () => onChoose(value) } }),
                el('label', { for: id }, text),
            ];
        }).flat());
}

function chip(text, onClick, title) {
    return el('button', { type: 'button', class: 'chip', title, on: { click: onClick } }, text);
}

// One field. `form` is told of every change through form.changed().
class Field {
    constructor(parameter, form) {
        this.parameter = parameter;
        this.form = form;
        this.kind = fieldKind(parameter);
        this.checked = false;
        this.id = newId('field');
        this.control = el('div', { class: 'control' });
        this.foot = el('div', { class: 'field-foot' });
        this.size = el('span', { class: 'size', id: `${this.id}-size` });
        this.problem = el('p', { class: 'problem', id: `${this.id}-problem` });
        this.warning = el('p', { class: 'warning', id: `${this.id}-warning` });
        this.need = el('span', { class: 'need' });
        this.unused = el('p', { class: 'unused' });
        const [label, ...help] = sentence(parameter.meaning).split(/; |；/);
        this.help = el('p', { class: 'help', id: `${this.id}-help` }, help.join('; '));
        this.body = el('div', {}, this.control, this.foot, this.problem, this.warning, this.help);
        const wide = this.kind !== 'choice' && this.kind !== 'number';
        this.element = el('div', { class: wide ? 'field wide' : 'field', data: { parameter: parameter.name } },
            el('div', { class: 'field-head' },
                el('label', { for: this.id }, label, ' ',
                    el('code', {}, parameter.name)),
                this.need),
            this.body, this.unused);
        this.draw();
    }

    get entry() {
        return this.form.entries.get(this.parameter.name);
    }

    set entry(entry) {
        this.form.entries.set(this.parameter.name, entry);
    }

    // Takes another value, from elsewhere than the keyboard.
    put(entry) {
        this.entry = entry;
        this.draw();
        this.form.changed(this);
    }

    typed(text) {
        this.entry = { ...this.entry, text };
        this.form.changed(this);
    }

    draw() {
        this.input = this.makeInput();
        this.input.id = this.id;
        this.control.replaceChildren(...[this.ways(), this.input, this.chosenFile()].filter(Boolean));
        this.foot.replaceChildren(this.size, ...this.chips());
    }

    ways() {
        let options = null;
        if (this.kind === 'bytes') options = Object.entries(HOW_TEXTS).map(([how, text]) => [how, t(text)]);
        if (takesUpload(this.parameter)) options = [['file', t('Upload')], ['text', t('Name on the host')]];
        if (options === null) return null;
        const label = t('How {parameter} is given', { parameter: this.parameter.name });
        return segments(label, options, this.entry.how, (how) => {
            this.entry = convertEntry(this.entry, how);
            this.draw();
            this.form.changed(this);
            this.control.querySelector('input:checked').focus();
        });
    }

    makeInput() {
        const { parameter, entry } = this;
        const onInput = { input: (event) => this.typed(event.target.value) };
        const plain = { autocomplete: 'off', spellcheck: 'false', autocapitalize: 'off' };
        if (this.kind === 'choice') return this.makeSelect();
        if (entry.how === 'file')
            return el('input', { type: 'file', on: { change: (event) => this.readFile(event.target.files[0]) } });
        if (this.kind === 'number')
            return el('input', { ...plain, type: 'text', inputmode: 'numeric', value: entry.text, on: onInput,
                placeholder: parameter.default ?? '' });
        if (this.kind === 'password')
            return el('input', { ...plain, type: 'password', autocomplete: 'new-password', value: entry.text, on: onInput });
        if (this.kind === 'handle' || this.kind === 'path')
            return el('input', { ...plain, type: 'text', class: 'mono', value: entry.text, on: onInput });
        return el('textarea', { ...plain, rows: 1, class: entry.how === 'text' ? '' : 'mono', value: entry.text, on: onInput });
    }

    makeSelect() {
        const { parameter, entry } = this;
        const choices = parameter.choices ?? parameter.oneOf.map((value) => ({ value, text: '' }));
        const line = ({ value, text }) => (text === '' ? value : `${value} · ${t(text)}`);
        const standard = choices.find(({ value }) => value === parameter.default);
        let absent = parameter.required ? t('Choose…') : t('Not given');
        if (standard) absent = t('Not given: {value}', { value: line(standard) });
        const select = el('select', { on: { change: (event) => this.typed(event.target.value) } },
            el('option', { value: '' }, absent),
            choices.map((row) => el('option', { value: row.value }, line(row))));
        select.value = entry.text;
        return select;
    }

    chosenFile() {
        if (this.entry.how !== 'file' || this.entry.file === null) return null;
        return el('span', { class: 'file-name' }, this.entry.file.name);
    }

    async readFile(file) {
        if (!file) return;
        const bytes = new Uint8Array(await file.arrayBuffer());
        this.put({ how: 'file', text: '', file: { name: file.name, bytes } });
        this.input.focus();
    }

    chips() {
        const { parameter } = this;
        if (takesRandom(parameter)) {
            const sizes = parameter.bytes ? [parameter.bytes] : RANDOM_SIZES;
            return [el('span', { class: 'chips-label' }, t('Random bytes:')),
                ...sizes.map((size) => chip(String(size), () => {
                    this.put({ how: 'hex', text: toHex(randomBytes(size)), file: null });
                    announce(t('{count} random bytes filled in', { count: size }));
                }, t('{count} random bytes', { count: size })))];
        }
        if (this.kind === 'handle')
            return openSessions().map((handle) =>
                chip(t('Use {session}', { session: handle.replace(/^(ke_(?:[a-z0-9-]+\.)?.{6}).*/, '$1…') }),
                    () => this.put({ how: 'text', text: handle, file: null }), handle));
        return [];
    }

    sizeText() {
        if (this.kind !== 'bytes' && this.entry.how !== 'file') return '';
        const bytes = isEmpty(this.entry) ? null : entryBytes(this.entry);
        return bytes === null ? '' : byteCount(bytes.length);
    }

    needText(used) {
        if (!used) return '';
        if (isRequired(this.parameter, this.form.valueOf)) return t('required');
        return t('optional');
    }

    // Shows what follows from the entries, this field's and the others'.
    refresh() {
        const used = applies(this.parameter, this.form.valueOf);
        this.body.hidden = !used;
        this.unused.hidden = used;
        this.element.classList.toggle('is-unused', !used);
        this.unused.textContent = used ? '' : t('Not used here: {need}.', { need: t(this.parameter.need) });
        this.need.textContent = this.needText(used);
        this.need.classList.toggle('is-required', isRequired(this.parameter, this.form.valueOf));
        this.size.textContent = this.sizeText();

        const found = this.fault();
        // Nothing is said of a field that is still to be filled in, before it is to be sent.
        const shown = found !== null && (this.checked || !isEmpty(this.entry));
        this.problem.textContent = shown ? found.text : '';
        this.input.setAttribute('aria-invalid', String(shown));
        this.input.setAttribute('aria-required', String(isRequired(this.parameter, this.form.valueOf)));
        const notes = [this.help, this.problem, this.warning, this.size].filter((note) => note.textContent !== '');
        this.input.setAttribute('aria-describedby', notes.map((note) => note.id).join(' '));
        this.element.classList.toggle('is-wrong', shown);
    }

    // What is wrong, also where it is not shown yet.
    fault() {
        if (!applies(this.parameter, this.form.valueOf)) return null;
        return fault(this.parameter, this.entry, this.form.valueOf);
    }
}

export class RequestForm {
    // `onChange` is called after each change of a value.
    constructor(request, entries, onChange) {
        this.entries = entries;
        this.onChange = onChange;
        this.valueOf = (name) => this.entries.get(name)?.text ?? '';
        for (const parameter of request.parameters)
            if (takesUpload(parameter) && isEmpty(entries.get(parameter.name)))
                entries.set(parameter.name, { how: 'file', text: '', file: null });
        this.fields = request.parameters.map((parameter) => new Field(parameter, this));
        this.element = el('div', { class: 'fields' }, this.fields.map((field) => field.element));
        this.refresh();
    }

    refresh() {
        for (const field of this.fields) field.refresh();
    }

    changed(field) {
        field.warning.textContent = '';
        this.refresh();
        this.onChange();
    }

    // [{field, text, stops}], in the order of the fields; from now on they are shown.
    check() {
        for (const field of this.fields) field.checked = true;
        this.refresh();
        return this.fields
            .map((field) => ({ field, ...field.fault() }))
            .filter((found) => found.text !== undefined);
    }

    // The fields that take part in the call: used, and not empty.
    given() {
        return this.fields
            .filter((field) => applies(field.parameter, this.valueOf) && !isEmpty(field.entry))
            .map((field) => ({ parameter: field.parameter, entry: field.entry }));
    }

    // Whether each value stands for something.
    isSendable() {
        return this.fields.every((field) => !field.fault()?.stops);
    }

    // The call's parameters for the API; the form must be sendable.
    parameters() {
        return Object.fromEntries(this.given().map(({ parameter, entry }) =>
            [parameter.name, entryValue(parameter, entry)]));
    }

    // Puts the host's warnings at their fields; those without a field are returned.
    showWarnings(warnings) {
        for (const field of this.fields) field.warning.textContent = '';
        const homeless = warnings.filter((warning) => {
            const field = this.fields.find((candidate) => candidate.parameter.name === warning.field);
            // What the form itself says of the field is enough.
            if (field && field.problem.textContent === '') field.warning.textContent = warningText(warning);
            return !field;
        });
        this.refresh();
        return homeless;
    }

    focusFirst() {
        this.fields.find((field) => !field.body.hidden)?.input.focus();
    }

    focus(name) {
        this.fields.find((field) => field.parameter.name === name)?.input.focus();
    }
}
