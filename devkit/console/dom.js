// Makes elements. Texts go in as text nodes, so that nothing from outside becomes markup.

const SVG = 'http://www.w3.org/2000/svg';

// Attributes: `on` holds listeners, `data` data attributes; true and false set and leave out.
export function el(tag, attributes = {}, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) {
        if (value === false || value === null || value === undefined) continue;
        if (name === 'on')
            for (const [event, listener] of Object.entries(value))
                element.addEventListener(event, listener);
        else if (name === 'data') Object.assign(element.dataset, value);
        else if (name === 'value') element.value = value;
        else element.setAttribute(name, value === true ? '' : value);
    }
    element.append(...children.flat().filter((child) => child !== null && child !== undefined));
    return element;
}

const icons = {
    copy: 'M5 5V2h9v9h-3 M2 5h9v9H2z',
    download: 'M8 2v8 M4.5 7 8 10.5 11.5 7 M2.5 13.5h11',
    send: 'M2.5 8h10 M8.5 4l4 4-4 4',
    menu: 'M2 4h12 M2 8h12 M2 12h12',
    check: 'M3 8.5 6.5 12 13 4.5',
    cross: 'M4 4l8 8 M12 4l-8 8',
    theme: 'M8 2.5a5.5 5.5 0 1 0 0 11z M8 2.5a5.5 5.5 0 0 1 0 11',
    arrow: 'M6 3.5 10.5 8 6 12.5',
    barred: 'M8 2a6 6 0 1 0 0 12A6 6 0 0 0 8 2z M3.8 3.8l8.4 8.4',
    crash: 'M9 1.5 3.5 9H8l-1 5.5L12.5 7H8z',
    clock: 'M8 2a6 6 0 1 0 0 12A6 6 0 0 0 8 2z M8 4.5V8l2.5 1.5',
    queue: 'M5.5 3.5v9 M10.5 3.5v9',
    cut: 'M1.5 8h4 M10.5 8h4 M6.5 5.5 8 8 M8 8l1.5 2.5',
    stop: 'M4 4h8v8H4z',
    info: 'M8 2a6 6 0 1 0 0 12A6 6 0 0 0 8 2z M8 7.5V11 M8 5v.1',
};

export function icon(name) {
    const svg = document.createElementNS(SVG, 'svg');
    svg.setAttribute('viewBox', '0 0 16 16');
    svg.setAttribute('class', 'icon');
    svg.setAttribute('aria-hidden', 'true');
    const path = document.createElementNS(SVG, 'path');
    path.setAttribute('d', icons[name]);
    svg.append(path);
    return svg;
}

let lastId = 0;

export function newId(prefix) {
    lastId += 1;
    return `${prefix}-${lastId}`;
}

// Says something to screen readers without moving the focus.
export function announce(text) {
    const region = document.getElementById('announcements');
    region.textContent = '';
    // A change is only noticed once the emptied region was seen.
    setTimeout(() => { region.textContent = text; }, 50);
}
