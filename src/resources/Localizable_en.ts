<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message>
        <source>OK_BUTTON</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>PUBLISH</source>
        <translation>Publish</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>Cancel</translation>
    </message>
</context>
</TS>
