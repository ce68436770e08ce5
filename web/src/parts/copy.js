// Buttons that take something along: to the clipboard, or as a file.
import { useState } from 'preact/hooks';
import { html } from '../html.js';

export function Copy({ text, children }) {
  const [said, setSaid] = useState('');
  const copy = async () => {
    try {
      await navigator.clipboard.writeText(text());
      setSaid('Copied');
    } catch {
      setSaid('The browser does not allow it');
    }
    setTimeout(() => setSaid(''), 2000);
  };
  return html`<button class="quiet" onClick=${copy}><span role="status">${said || children}</span></button>`;
}

export const Download = ({ href, name, children }) => html`<a class="button" href=${href} download=${name}>${children}</a>`;
