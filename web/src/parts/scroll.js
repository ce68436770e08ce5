// What may be wider than the page, with its own scroll bar, which the keyboard reaches as well.
import { html } from '../html.js';

export const Scroll = ({ label, children }) => html`<div class="scroll" tabindex="0" role="region" aria-label=${label}>${children}</div>`;
