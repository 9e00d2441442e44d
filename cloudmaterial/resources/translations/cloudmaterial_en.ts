<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>Cloud materials</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>Log in</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>Log out</translation>
    </message>
</context>
</TS>
